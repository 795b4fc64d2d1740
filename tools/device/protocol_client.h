// The client side of the device's command protocol: one request, one reply, on one connection.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "mini/kv_mini_frame.h"
#include "tools/device/tcp.h"

namespace kvtool {

struct ReplyHeader {
    uint16_t kind;
    uint16_t version;
    uint16_t command;
    uint16_t status;
    uint32_t session;
    uint32_t dataLen;
    uint32_t count;
};
// Decodes the 32 bytes at `frame`.
ReplyHeader DecodeReplyHeader(const uint8_t* frame);

// Why the header cannot be the start of a reply to this command; empty: it can.
// Does not check the status.
std::string ReplyFault(const ReplyHeader& header, uint16_t command);

struct DeviceInfo {
    std::string name;
    Bytes id;  // 8 bytes: the serial number, all zero before the first serial number query
    std::string model;
    std::string firmware;
    std::string ic;
    std::string sensor;
};

class ProtocolClient {
  public:
    // `replyTimeout` bounds each request.
    ProtocolClient(UniqueFd fd, Millis replyTimeout)
        : fd_(std::move(fd)), replyTimeout_(replyTimeout) {}

    // Each blocks for at most the reply time-out and throws ToolError: kNoReply after the time-out,
    // kLost if the connection ends, kBadReply if the answer is not a good reply.
    // The session the server held before this login.
    uint32_t Login();
    // The session the server holds.
    uint32_t Heartbeat();
    std::array<uint8_t, kv::kSerialSize> SerialNumber();
    DeviceInfo Info();

    int Fd() const { return fd_.Get(); }

  private:
    struct Reply {
        ReplyHeader header;
        Bytes payload;
    };
    Reply Request(uint16_t command, const char* what, size_t payloadSize);
    void ReceiveExactly(uint8_t* data, size_t size, const char* what, Clock::time_point deadline);

    UniqueFd fd_;
    Millis replyTimeout_;
    uint32_t session_ = 0;
};

struct Connected {
    UniqueFd fd;
    Endpoint endpoint;
};
// Connects to the first endpoint that accepts. The time-out applies to each endpoint.
// Throws ToolError(kUnreachable).
Connected ConnectAny(const std::string& host, uint16_t port, Millis timeout);

}  // namespace kvtool
