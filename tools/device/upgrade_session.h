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
    // Pause after the request, because the device must read its 32 bytes alone.
    Millis headerGap{300};
    // Until this time after the request only a first piece is sent. The device reads nothing in the
    // first 1.1 s anyway, and a busy device says so when it reads its first bytes.
    Millis firstLook{1500};
    Millis stall{25000};   // longest time in which the device acknowledges no byte
    Millis verify{60000};  // from the last byte to the verdict
    Millis leave{600000};  // from the verdict until the device is seen to leave recovery mode
    Millis back{120000};   // from then until it must have been seen alive
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

// How much of the upgrade request, package and trailer the network has taken.
enum class Sent { kNothing, kPart, kAll };

// Everything known about an upgrade. It is filled in as the upgrade proceeds, so it is true after
// any failure.
struct UpgradeRecord {
    std::string address;
    std::string mac;  // empty: not known
    uint32_t session = 0;
    bool identified = false;
    DeviceInfo device;
    uint64_t total = 0;         // package and trailer
    uint64_t acknowledged = 0;  // how much of it the device's TCP has acknowledged
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
    kFinish,  // sends the trailer: from now on the device may accept, even if nothing shows it
};

// Receives events as they happen, on the calling thread.
class UpgradeListener {
  public:
    virtual ~UpgradeListener() = default;
    virtual void Line(const std::string& text) = 0;
    // About every 100 ms during the upload, even while the device acknowledges nothing, but not
    // during the pauses at its beginning (headerGap, firstLook).
    virtual void Progress(const UploadProgress& progress) = 0;
    // Called before the step begins. An exception from it ends the upgrade there.
    virtual void Before(UpgradeStep step) { (void)step; }
};

class UpgradeSession {
  public:
    UpgradeSession(const UpgradeTimes& times, UpgradeListener* listener, UpgradeRecord* record)
        : times_(times), listener_(listener), record_(record) {}

    // Call the steps in this order. Each blocks within its time-outs, adds its phases to the record
    // and throws ToolError on failure.
    void Connect(const std::string& host, uint16_t port);
    void Login();
    void Identify();
    // Sends the package and its trailer, waits for the verdict, and returns once the package is
    // accepted. Send nothing on the connection afterwards: after a large package any further byte
    // makes the device reboot while it flashes.
    void Upload(const Bytes& package);

    const Endpoint& Peer() const { return endpoint_; }
    // The connection. It stays open, so that the caller sees when the device closes it.
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

    uint64_t given_ = 0;  // bytes of package and trailer that the socket has taken
    Clock::time_point uploadStart_;
    Clock::time_point lastAdvance_;
    Clock::time_point lastReport_;
    std::array<uint8_t, kv::kFrameHeaderSize> answer_{};
    size_t answerSize_ = 0;
    bool busySeen_ = false;
};

// A device takes a package only if it names the device's own chip and sensor type.
// Throws ToolError(kRefused) if the package's types are not the device's.
void CheckIdentity(const std::string& ic, const std::string& sensor, const DeviceInfo& device);

// The trailer to send after this package.
std::array<uint8_t, kv::kMd5TrailerSize> MakeTrailer(const Bytes& package);

}  // namespace kvtool
