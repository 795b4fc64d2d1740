#include "tools/conform/trial.h"

#include <poll.h>

#include <algorithm>

#include "tools/base/errors.h"

namespace kvtool::conform {

void Trial::Differs(const std::string& how) {
    finding_.outcome = Outcome::kBroken;
    finding_.remarks.push_back(how);
}

void Trial::Skip(const std::string& why) {
    if (finding_.outcome == Outcome::kKept) {
        finding_.outcome = Outcome::kSkipped;
    }
    finding_.remarks.push_back(why);
}

bool Trial::Expect(bool holds, const std::string& otherwise) {
    if (!holds) {
        Differs(otherwise);
    }
    return holds;
}

void Trial::Record(Piece::Way way, const uint8_t* data, size_t size) {
    if (size == 0) {
        return;
    }
    // Join what arrives in pieces: where TCP cuts a stream has no meaning.
    if (way == Piece::Way::kReceived && !finding_.exchange.empty() &&
        finding_.exchange.back().way == way) {
        Bytes& last = finding_.exchange.back().bytes;
        last.insert(last.end(), data, data + size);
        return;
    }
    finding_.exchange.push_back({way, Bytes(data, data + size), ""});
}

void Trial::Remark(const std::string& text) {
    finding_.exchange.push_back({Piece::Way::kRemark, {}, text});
}

Line::Line(Trial* trial, const TrialTimes& times, const std::string& host, uint16_t port)
    : trial_(trial), times_(times) {
    Connected connected = ConnectAny(host, port, times.connect);
    peer_ = std::move(connected.endpoint);
    fd_ = std::move(connected.fd);
}

void Line::Send(const Bytes& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const Clock::time_point deadline = Clock::now() + times_.reply;
        if (WaitFor(fd_.Get(), POLLOUT, deadline) == 0) {
            throw ToolError(ExitCode::kLost, "the device takes no more bytes");
        }
        done += SendNow(fd_.Get(), bytes.data() + done, bytes.size() - done);
    }
    trial_->Record(Piece::Way::kSent, bytes.data(), bytes.size());
}

Bytes Line::Receive(size_t size) {
    return Receive(size, Clock::now() + times_.reply);
}

Bytes Line::Receive(size_t size, Clock::time_point deadline) {
    Bytes bytes(size);
    size_t done = 0;
    while (done < size && !closed_) {
        const Received received = ReceiveNow(fd_.Get(), bytes.data() + done, size - done);
        trial_->Record(Piece::Way::kReceived, bytes.data() + done, received.size);
        done += received.size;
        if (received.state == ReceiveState::kClosed) {
            closed_ = true;
            trial_->Remark(received.error);
        } else if (done < size &&
                   (WaitFor(fd_.Get(), POLLIN, deadline) == 0 || Clock::now() >= deadline)) {
            break;
        }
    }
    bytes.resize(done);
    return bytes;
}

Bytes Line::Listen() {
    constexpr size_t kMost = 65536;
    const Bytes bytes = Receive(kMost, Clock::now() + times_.silence);
    if (bytes.empty() && !closed_) {
        trial_->Remark("no answer");
    }
    return bytes;
}

Bytes RequestFrame(uint16_t command, uint32_t session, uint32_t dataLen, uint32_t count) {
    Bytes frame(kv::kFrameHeaderSize);
    kv::FillFrameHeader(frame.data(), command, 0, session, dataLen, count);
    return frame;
}

std::string CodeText(uint16_t value) {
    const uint8_t bytes[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return "0x" + Hex(bytes, sizeof bytes);
}

std::optional<CheckedReply> ReadReply(Trial* trial, Line* line, uint16_t command, uint16_t status,
                                      uint32_t payloadSize) {
    const std::string name = "reply to " + CodeText(command);
    const Bytes frame = line->Receive(kv::kFrameHeaderSize);
    if (frame.size() < kv::kFrameHeaderSize) {
        trial->Differs(name + ": " + std::to_string(frame.size()) + " bytes came" +
                       (line->Closed() ? ", then the connection ended" : " in time"));
        return std::nullopt;
    }
    CheckedReply reply{DecodeReplyHeader(frame.data()), {}};
    const std::string fault = ReplyFault(reply.header, command);
    if (!trial->Expect(fault.empty(), name + ": " + fault)) {
        return std::nullopt;
    }
    trial->Expect(
        reply.header.status == status,
        name + ": status " + CodeText(reply.header.status) + " instead of " + CodeText(status));
    const uint32_t count = payloadSize > 0 ? 1 : 0;
    trial->Expect(reply.header.count == count, name + ": count " +
                                                   std::to_string(reply.header.count) +
                                                   " instead of " + std::to_string(count));
    const auto reserved = frame.begin() + offsetof(kv::FrameHeader, reserved);
    trial->Expect(std::all_of(reserved, frame.end(), [](uint8_t byte) { return byte == 0; }),
                  name + ": the reserved bytes are not 0");
    if (!trial->Expect(reply.header.dataLen == payloadSize,
                       name + ": it announces " + std::to_string(reply.header.dataLen) +
                           " bytes instead of " + std::to_string(payloadSize))) {
        return std::nullopt;
    }
    reply.payload = line->Receive(payloadSize);
    if (!trial->Expect(
            reply.payload.size() == payloadSize,
            name + ": only " + std::to_string(reply.payload.size()) + " of its bytes came")) {
        return std::nullopt;
    }
    return reply;
}

std::optional<CheckedReply> Ask(Trial* trial, Line* line, uint16_t command, uint32_t payloadSize) {
    line->Send(RequestFrame(command));
    return ReadReply(trial, line, command, kv::kStatusDone, payloadSize);
}

}  // namespace kvtool::conform
