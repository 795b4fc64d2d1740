#include "tools/device/upgrade_session.h"

#include <poll.h>

#include <algorithm>
#include <cstring>

namespace kvtool {

namespace {

constexpr size_t kFirstPiece = 4096;
constexpr size_t kSendStep = 65536;
constexpr Millis kTick{100};

}  // namespace

// Measures a phase. Only a phase that ends without an exception is recorded.
class UpgradeSession::PhaseTimer {
  public:
    PhaseTimer(UpgradeSession* session, const char* name)
        : session_(session), name_(name), start_(Clock::now()) {}
    void Done(const std::string& result) {
        const double seconds = SecondsSince(start_);
        session_->record_->phases.push_back({name_, seconds});
        session_->listener_->Line(std::string(name_) + ": " + result + " (" + SecondsText(seconds) +
                                  ")");
    }

  private:
    UpgradeSession* session_;
    const char* name_;
    Clock::time_point start_;
};

std::array<uint8_t, kv::kMd5TrailerSize> MakeTrailer(const Bytes& package) {
    std::array<uint8_t, kv::kMd5TrailerSize> trailer{};
    memcpy(trailer.data(), kv::kMd5Tag, kv::kMd5TagSize);
    const std::string digest = Md5Hex(package.data(), package.size());
    memcpy(trailer.data() + kv::kMd5TagSize, digest.data(), kv::kMd5HexSize);
    trailer.back() = '\n';
    return trailer;
}

void CheckIdentity(const std::string& ic, const std::string& sensor, const DeviceInfo& device) {
    if (ic != device.ic || sensor != device.sensor) {
        throw ToolError(ExitCode::kRefused,
                        "the package is for chip '" + Printable(ic) + "' and sensor '" +
                            Printable(sensor) + "', but the device has '" + Printable(device.ic) +
                            "' and '" + Printable(device.sensor) + "'; nothing was sent");
    }
}

void UpgradeSession::Connect(const std::string& host, uint16_t port) {
    PhaseTimer phase(this, "connect");
    Connected connected = ConnectAny(host, port, times_.connect);
    endpoint_ = connected.endpoint;
    record_->address = endpoint_.text;
    client_ = ProtocolClient(std::move(connected.fd), times_.reply);
    phase.Done(endpoint_.text);
}

void UpgradeSession::Login() {
    PhaseTimer phase(this, "login");
    (void)client_.Login();
    // The reply to the login still carries the previous session.
    record_->session = client_.Heartbeat();
    phase.Done("session " + std::to_string(record_->session));
}

void UpgradeSession::Identify() {
    PhaseTimer phase(this, "identify");
    record_->device = client_.Info();
    record_->identified = true;
    const DeviceInfo& device = record_->device;
    phase.Done("chip " + Printable(device.ic) + ", sensor " + Printable(device.sensor) +
               ", firmware " + Printable(device.firmware));
}

void UpgradeSession::Upload(const Bytes& package) {
    const auto trailer = MakeTrailer(package);
    record_->total = package.size() + trailer.size();
    listener_->Before(UpgradeStep::kUpload);
    uploadStart_ = lastAdvance_ = lastReport_ = Clock::now();
    {
        PhaseTimer phase(this, "upload");
        std::array<uint8_t, kv::kFrameHeaderSize> request{};
        kv::FillFrameHeader(request.data(), kv::kCmdUpgrade, 0, record_->session,
                            static_cast<uint32_t>(record_->total), 1);
        record_->sent = Sent::kPart;
        // The rest of an upload that ends early must not reach the device during the next one: the
        // device would mistake both for one upload.
        DropUnsentAtEnd(Fd(), true);
        if (SendNow(Fd(), request.data(), request.size()) != request.size()) {
            Lost("the upgrade request could not be sent");
        }
        WaitQuiet(uploadStart_ + times_.headerGap);
        const size_t first = std::min(package.size(), kFirstPiece);
        Send(package.data(), first);
        WaitQuiet(uploadStart_ + times_.firstLook);
        Send(package.data() + first, package.size() - first);
        WaitAcknowledged();
        const double seconds = std::max(SecondsSince(uploadStart_), 0.001);
        phase.Done(SizeText(package.size()) + ", " +
                   SizeText(static_cast<uint64_t>(static_cast<double>(package.size()) / seconds)) +
                   " a second");
    }
    {
        listener_->Before(UpgradeStep::kFinish);
        DropUnsentAtEnd(Fd(), false);
        PhaseTimer phase(this, "trailer");
        Send(trailer.data(), trailer.size());
        record_->sent = Sent::kAll;
        WaitAcknowledged();
        phase.Done("MD5 " +
                   std::string(reinterpret_cast<const char*>(trailer.data()) + kv::kMd5TagSize,
                               kv::kMd5HexSize));
    }
    PhaseTimer phase(this, "verification");
    AwaitVerdict();
    record_->accepted = true;
    phase.Done("the device has accepted the package");
}

void UpgradeSession::Lost(const std::string& why) const {
    throw ToolError(ExitCode::kLost,
                    "upload: " + why + " (" + std::to_string(record_->acknowledged) + " of " +
                        std::to_string(record_->total) + " bytes were acknowledged)");
}

// Counts what the device has acknowledged. The request is in the same queue, before the package. It
// has left the queue long before the count matters.
void UpgradeSession::Advance(bool force) {
    const uint64_t pending = Unacknowledged(Fd());
    const uint64_t acknowledged = given_ > pending ? given_ - pending : 0;
    const Clock::time_point now = Clock::now();
    if (acknowledged > record_->acknowledged) {
        record_->acknowledged = acknowledged;
        lastAdvance_ = now;
    }
    if (force || now - lastReport_ >= kTick) {
        lastReport_ = now;
        listener_->Progress({record_->acknowledged, record_->total, SecondsSince(uploadStart_),
                             SecondsSince(lastAdvance_), Seconds(times_.stall)});
    }
    if (now - lastAdvance_ >= times_.stall) {
        Lost("nothing was acknowledged for " + SecondsText(Seconds(times_.stall)));
    }
}

// Reads what the device has sent. Returns whether there was anything.
bool UpgradeSession::TakeAnswer(bool allSent) {
    const Received received =
        ReceiveNow(Fd(), answer_.data() + answerSize_, answer_.size() - answerSize_);
    if (received.state == ReceiveState::kClosed && busySeen_) {
        throw ToolError(ExitCode::kBusy, "the device says that an accepted upgrade is under way; " +
                                             received.error + "; wait for that upgrade to end");
    }
    if (received.state == ReceiveState::kClosed && allSent) {
        throw ToolError(ExitCode::kNoVerdict,
                        "everything was sent, but " + received.error +
                            " before it gave a verdict; it has probably rejected the package "
                            "and reboots");
    }
    if (received.state == ReceiveState::kClosed) {
        Lost(received.error);
    }
    answerSize_ += received.size;
    return received.state == ReceiveState::kData;
}

// Handles a complete answer that is not an acceptance.
void UpgradeSession::Interpret(bool allSent) {
    const ReplyHeader header = DecodeReplyHeader(answer_.data());
    const std::string fault = ReplyFault(header, kv::kCmdUpgrade);
    answerSize_ = 0;
    if (!fault.empty()) {
        throw ToolError(ExitCode::kBadReply, "upgrade: bad reply: " + fault);
    }
    if (header.status == kv::kStatusUpgradeBusy) {
        busySeen_ = true;
        if (!allSent) {
            throw ToolError(ExitCode::kBusy,
                            "the device says that an accepted upgrade is under way; the upload "
                            "stopped at once, but it may have spoiled that upgrade: wait for the "
                            "device, and upgrade it again if it does not run");
        }
        return;
    }
    throw ToolError(ExitCode::kBadReply, "upgrade: unexpected status " +
                                             std::to_string(header.status) + " after " +
                                             std::to_string(record_->acknowledged) + " of " +
                                             std::to_string(record_->total) + " bytes");
}

void UpgradeSession::Send(const uint8_t* data, size_t size) {
    size_t done = 0;
    lastAdvance_ = Clock::now();
    while (done < size) {
        const short events = WaitFor(Fd(), POLLOUT | POLLIN, Clock::now() + kTick);
        if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) {
            (void)TakeAnswer(false);
            if (answerSize_ == answer_.size()) {
                Interpret(false);
            }
        }
        if ((events & POLLOUT) != 0) {
            const size_t n = SendNow(Fd(), data + done, std::min(size - done, kSendStep));
            done += n;
            given_ += n;
        }
        Advance(false);
    }
}

void UpgradeSession::WaitQuiet(Clock::time_point until) {
    while (Clock::now() < until && WaitFor(Fd(), POLLIN, until) != 0) {
        (void)TakeAnswer(false);
        if (answerSize_ == answer_.size()) {
            Interpret(false);
        }
    }
}

// The answer may overtake the last acknowledgement, so it ends the wait too.
void UpgradeSession::WaitAcknowledged() {
    const bool allGiven = given_ == record_->total;
    Advance(false);
    while (record_->acknowledged < given_) {
        if (allGiven && answerSize_ > 0) {
            return;
        }
        if (WaitFor(Fd(), POLLIN, Clock::now() + Millis(20)) != 0) {
            (void)TakeAnswer(allGiven);
            if (answerSize_ == answer_.size() && !allGiven) {
                Interpret(false);
            }
        }
        Advance(false);
    }
    Advance(true);
}

void UpgradeSession::AwaitVerdict() {
    const Clock::time_point deadline = Clock::now() + times_.verify;
    for (;;) {
        if (answerSize_ == answer_.size()) {
            const ReplyHeader header = DecodeReplyHeader(answer_.data());
            if (ReplyFault(header, kv::kCmdUpgrade).empty() && header.status == kv::kStatusDone) {
                return;
            }
            Interpret(true);
        }
        // Check the clock each time: a device may never stop sending.
        if (Clock::now() >= deadline || WaitFor(Fd(), POLLIN, deadline) == 0) {
            break;
        }
        (void)TakeAnswer(true);
    }
    if (busySeen_) {
        throw ToolError(ExitCode::kBusy,
                        "the device says that an accepted upgrade is under way; it has not "
                        "accepted this package");
    }
    throw ToolError(ExitCode::kNoVerdict,
                    "everything was sent, but the device gave no verdict within " +
                        SecondsText(Seconds(times_.verify)) +
                        "; it has probably rejected the package and reboots");
}

}  // namespace kvtool
