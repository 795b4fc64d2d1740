// A scripted stand-in for a camera in recovery mode. It speaks the command protocol over TCP,
// correctly or with the faults that its script asks for.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>

#include "tests/support/discovery_client.h"

namespace fake {

using kv_test::Bytes;
using kv_test::milliseconds;

// Binds the socket and returns its port.
uint16_t Bind(int fd, const std::string& host, uint16_t port);

enum class Verdict { kAnswer, kSilent, kClose };

struct Script {
    std::string ic = "PRT7K";
    std::string sensor = "38QX";
    milliseconds commandPause{0};  // wait before reading a command
    size_t replyPiece = 0;         // send replies in pieces of this size, 0: whole
    size_t readStep = 8192;        // bytes of the stream to read at once
    milliseconds readPause{0};
    std::optional<size_t> closeAfter;  // reset the connection after this many stream bytes
    std::optional<size_t> stopAfter;   // read nothing more after this many stream bytes
    std::optional<size_t> busyAfter;   // answer each read with 0xFFFF after this many stream bytes
    Verdict verdict = Verdict::kAnswer;
    uint16_t verdictStatus = 0;
    // Changes the reply to a command before it is sent. An empty reply is not sent.
    std::function<Bytes(uint16_t command, Bytes reply)> edit;
    // Closes the listener and all connections after a whole upload, unless the verdict is kClose.
    // With backAfter, the listener comes back after that time, as after a restart.
    bool leaves = false;
    std::optional<milliseconds> backAfter;
    // The application opens alivePort this long after the device has closed them.
    std::optional<milliseconds> aliveAfter;
    uint16_t alivePort = 0;
    // Sends busy replies for ever after the verdict.
    bool talks = false;
};

class Device {
  public:
    // `port` 0: any free port.
    explicit Device(Script script, uint16_t port = 0, std::string address = "127.0.0.1");
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    uint16_t Port() const { return port_; }
    // The bytes received after the upgrade request, and the request itself.
    Bytes Stream() { return Copy(stream_); }
    std::string UpgradeRequest() { return Copy(request_); }
    // How often it has accepted a package.
    int Accepted() const { return accepted_; }
    // The size of each chunk read as a command; the upgrade request is the last.
    std::vector<size_t> Chunks() { return Copy(chunks_); }

  private:
    enum class Next { kGoOn, kEnd, kRestart };
    void Serve();
    Next Poll(std::vector<UniqueFd>* clients);
    Next Command(int fd);
    Next ReceiveStream(int fd);
    Next GiveVerdict(int fd);
    void Reply(int fd, uint16_t command, uint16_t status, const std::string& payload = "");
    template <typename Value>
    Value Copy(const Value& value) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return value;
    }
    void Listen();
    bool Pause(milliseconds time);
    void RunApplication();
    void Talk(int fd);

    Script script_;
    uint16_t port_;
    std::string address_;
    UniqueFd listener_;
    UniqueFd stop_;
    uint32_t session_ = 0;
    uint32_t starts_ = 0;
    uint64_t total_ = 0;
    std::atomic<int> accepted_{0};
    std::mutex mutex_;
    Bytes stream_;
    std::string request_;
    std::vector<size_t> chunks_;
    std::thread thread_;
};

// Answers every search with the same datagrams: the first from `address` of this host, the next
// from the address after it, and so on. It takes searches at all addresses unless `at` names one.
class Responder {
  public:
    Responder(const std::string& address, uint16_t port, std::vector<Bytes> replies,
              const std::string& at = "0.0.0.0");
    Responder(const std::string& address, uint16_t port, Bytes reply)
        : Responder(address, port, std::vector<Bytes>{std::move(reply)}) {}
    ~Responder();
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;
    uint16_t Port() const { return port_; }

  private:
    void Send(const Bytes& reply, sockaddr_in to, uint32_t number);

    std::vector<Bytes> replies_;
    in_addr first_{};
    UniqueFd in_;
    UniqueFd out_;
    UniqueFd stop_;
    uint16_t port_;
    std::thread thread_;
};

}  // namespace fake
