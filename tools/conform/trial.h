// One rule tried on one device: what was exchanged, and what differs from the rule.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/device/protocol_client.h"
#include "tools/device/tcp.h"

namespace kvtool::conform {

enum class Outcome { kKept, kBroken, kSkipped };

// A part of a conversation, in the order in which it happened.
struct Piece {
    enum class Way { kSent, kReceived, kRemark };
    Way way;
    Bytes bytes;
    std::string text;  // of a remark
};

struct Finding {
    std::string rule;  // a stable word
    std::string text;  // the rule
    Outcome outcome = Outcome::kKept;
    std::vector<std::string> remarks;  // the differences, or why it was skipped
    std::vector<Piece> exchange;
};

// Collects the finding of one rule.
class Trial {
  public:
    Trial(const char* rule, const char* text) {
        finding_.rule = rule;
        finding_.text = text;
    }

    // Records how the device differs from the rule. The trial may go on.
    void Differs(const std::string& how);
    void Skip(const std::string& why);
    // Records `otherwise` as a difference unless `holds`. Returns `holds`.
    bool Expect(bool holds, const std::string& otherwise);

    void Record(Piece::Way way, const uint8_t* data, size_t size);
    void Remark(const std::string& text);
    const Finding& Result() const { return finding_; }

  private:
    Finding finding_;
};

// How long a trial waits.
struct TrialTimes {
    Millis connect{5000};
    Millis reply{5000};
    Millis silence{1000};  // without an answer in this time, the trial expects none
};

// A TCP connection that records what passes. Its functions throw ToolError(kInterrupted).
class Line {
  public:
    // Throws ToolError(kUnreachable).
    Line(Trial* trial, const TrialTimes& times, const std::string& host, uint16_t port);

    // Gives all bytes to the system; a request leaves as one segment. Throws ToolError(kLost).
    void Send(const Bytes& bytes);
    // Waits until `size` bytes or the end of the connection have come, at most for the reply
    // time-out, or until `deadline`. Returns what came.
    Bytes Receive(size_t size);
    Bytes Receive(size_t size, Clock::time_point deadline);
    // Waits for the silence time. Returns what came, normally nothing.
    Bytes Listen();
    bool Closed() const { return closed_; }
    const Endpoint& Peer() const { return peer_; }

  private:
    Trial* trial_;
    TrialTimes times_;
    Endpoint peer_;
    UniqueFd fd_;
    bool closed_ = false;
};

// A request without payload.
Bytes RequestFrame(uint16_t command, uint32_t session = 0, uint32_t dataLen = 0,
                   uint32_t count = 0);

struct CheckedReply {
    ReplyHeader header;
    Bytes payload;
};
// Reads a reply and compares each byte of its header that the protocol fixes. Returns nothing
// unless a whole reply to this command came, with a payload of this size; the trial then has the
// reason.
std::optional<CheckedReply> ReadReply(Trial* trial, Line* line, uint16_t command, uint16_t status,
                                      uint32_t payloadSize);
// Sends a request and reads its reply.
std::optional<CheckedReply> Ask(Trial* trial, Line* line, uint16_t command, uint32_t payloadSize);

// "0x2002".
std::string CodeText(uint16_t value);

}  // namespace kvtool::conform
