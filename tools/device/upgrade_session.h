// One upgrade of one device, from the connection to the device's verdict.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "mini/kv_mini_frame.h"
#include "tools/base/errors.h"
#include "tools/device/protocol_client.h"

namespace kvtool {

struct UpgradeTimes {
    Millis connect{5000};
    Millis reply{5000};
    // The device must get the request's 32 bytes as a piece of its own: this long nothing follows.
    Millis headerGap{300};
    // Before this time from the request only the first few bytes are sent. The device does not read
    // them earlier anyway, and if it is busy it says so on the first that it reads.
    Millis firstLook{1500};
    Millis stall{25000};   // longest time without any byte acknowledged by the device
    Millis verify{60000};  // from the last byte to the verdict
    Millis leave{600000};  // from the verdict until the device is seen to leave recovery mode
    Millis back{120000};   // from there until it must have been seen alive
    Millis probeEvery{2000};
    Millis probeReply{3000};
    Millis ask{1500};           // for a reply to a search at the device's own address
    Millis search{1000};        // for a broadcast search for a device that is away
    Millis searchEvery{15000};  // between two such searches
};

struct Phase {
    std::string name;
    double seconds;
};

// How much of the upgrade request and the stream behind it has been handed to the network.
enum class Sent { kNothing, kPart, kAll };

// Everything that is known of an upgrade; filled as it goes on, so that it is true at any failure.
struct UpgradeRecord {
    std::string address;
    std::string mac;  // empty: not known
    uint32_t session = 0;
    bool identified = false;
    DeviceInfo device;
    uint64_t total = 0;         // package and trailer
    uint64_t acknowledged = 0;  // of these, what the device's TCP has acknowledged
    Sent sent = Sent::kNothing;
    bool accepted = false;  // the device answered with status 0
    std::vector<Phase> phases;
    std::vector<std::string> observed;
    std::vector<std::string> assumed;
};

struct UploadProgress {
    uint64_t acknowledged = 0;
    uint64_t total = 0;
    double seconds = 0;     // since the upload began
    double silent = 0;      // seconds since the last byte was acknowledged
    double stallLimit = 0;  // the upload ends when `silent` reaches this
};

// What an upgrade is about to do.
enum class UpgradeStep {
    kUpload,  // sends the request and the package
    kFinish,  // sends the trailer: from here on the device may accept, whatever is seen of it
};

// Told of what happens as it happens. Called on the calling thread only.
class UpgradeListener {
  public:
    virtual ~UpgradeListener() = default;
    virtual void Line(const std::string& text) = 0;
    // About every 100 ms during the upload, also while the device acknowledges nothing.
    virtual void Progress(const UploadProgress& progress) = 0;
    // Comes back before anything of the step is done. What it throws ends the upgrade there.
    virtual void Before(UpgradeStep step) { (void)step; }
};

class UpgradeSession {
  public:
    UpgradeSession(const UpgradeTimes& times, UpgradeListener* listener, UpgradeRecord* record)
        : times_(times), listener_(listener), record_(record) {}

    // Each step blocks within its time-outs, adds its phases to the record and throws ToolError
    // on failure. Call them in this order.
    void Connect(const std::string& host, uint16_t port);
    void Login();
    void Identify();
    // Sends the package and its trailer and waits for the verdict; returns once the package is
    // accepted. Nothing is sent on the connection afterwards: the device would take any further
    // byte for a reason to reboot in the middle of its work.
    void Upload(const Bytes& package);

    const Endpoint& Peer() const { return endpoint_; }
    // The connection, which stays open; for seeing when the device closes it.
    int Fd() const { return client_.Fd(); }

  private:
    class PhaseTimer;
    void Send(const uint8_t* data, size_t size);
    void WaitQuiet(Clock::time_point until);
    void WaitAcknowledged();
    void AwaitVerdict();
    bool TakeAnswer(bool allSent);
    void Interpret(bool allSent);
    void Advance(bool force);
    [[noreturn]] void Lost(const std::string& why) const;

    UpgradeTimes times_;
    UpgradeListener* listener_;
    UpgradeRecord* record_;
    ProtocolClient client_{UniqueFd(), Millis(0)};
    Endpoint endpoint_;

    uint64_t given_ = 0;  // stream bytes that the socket has taken
    Clock::time_point uploadStart_;
    Clock::time_point lastAdvance_;
    Clock::time_point lastReport_;
    std::array<uint8_t, kv::kFrameHeaderSize> answer_{};
    size_t answerSize_ = 0;
    bool busySeen_ = false;
};

// A device takes any package that names its own chip and sensor type, and only such a one.
// Throws ToolError(kRefused) for the types of a package that are not the device's.
void CheckIdentity(const std::string& ic, const std::string& sensor, const DeviceInfo& device);

// The trailer that follows a package on the wire.
std::array<uint8_t, kv::kMd5TrailerSize> MakeTrailer(const Bytes& package);

}  // namespace kvtool
