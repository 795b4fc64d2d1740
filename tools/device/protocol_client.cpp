#include "tools/device/protocol_client.h"

#include <poll.h>

#include <algorithm>
#include <cstring>

#include "tools/base/errors.h"
#include "tools/base/text.h"

namespace kvtool {

namespace {

std::string Code(uint16_t value) {
    const uint8_t bytes[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return "0x" + Hex(bytes, sizeof bytes);
}

[[noreturn]] void BadReply(const std::string& what, const std::string& why) {
    throw ToolError(ExitCode::kBadReply, what + ": bad reply: " + why);
}

std::string InfoText(const void* field, size_t size, const char* name) {
    FieldText text = ReadField(field, size);
    if (!text.terminated) {
        BadReply("device information", std::string(name) + " is not terminated within its field");
    }
    return text.text;
}

}  // namespace

ReplyHeader DecodeReplyHeader(const uint8_t* frame) {
    kv::FrameHeader raw;
    memcpy(&raw, frame, sizeof raw);
    return {kv::GetLe16(raw.usKind),   kv::GetLe16(raw.usVersion),   kv::GetLe16(raw.usCmd),
            kv::GetLe16(raw.usStatus), kv::GetLe32(raw.uiSessionId), kv::GetLe32(raw.uiDataLen),
            kv::GetLe32(raw.uiCount)};
}

std::string ReplyFault(const ReplyHeader& header, uint16_t command) {
    if (header.kind != kv::kFrameKind) {
        return "kind " + Code(header.kind) + " instead of " + Code(kv::kFrameKind);
    }
    if (header.version != kv::kFrameVersion) {
        return "version " + Code(header.version) + " instead of " + Code(kv::kFrameVersion);
    }
    if (header.command != command) {
        return "it answers command " + Code(header.command) + " instead of " + Code(command);
    }
    return "";
}

void ProtocolClient::ReceiveExactly(uint8_t* data, size_t size, const char* what,
                                    Clock::time_point deadline) {
    size_t done = 0;
    while (done < size) {
        const Received received = ReceiveNow(fd_.Get(), data + done, size - done);
        if (received.state == ReceiveState::kClosed) {
            throw ToolError(ExitCode::kLost, std::string(what) + ": " + received.error + " (" +
                                                 std::to_string(done) + " of " +
                                                 std::to_string(size) + " bytes arrived)");
        }
        done += received.size;
        if (received.state == ReceiveState::kNothing && WaitFor(fd_.Get(), POLLIN, deadline) == 0) {
            throw ToolError(ExitCode::kNoReply, std::string(what) + ": no answer within " +
                                                    SecondsText(Seconds(replyTimeout_)) + " (" +
                                                    std::to_string(done) + " of " +
                                                    std::to_string(size) + " bytes arrived)");
        }
    }
}

ProtocolClient::Reply ProtocolClient::Request(uint16_t command, const char* what,
                                              size_t payloadSize) {
    const Clock::time_point deadline = Clock::now() + replyTimeout_;
    // Otherwise unexpected bytes would count as the start of this reply.
    uint8_t stale = 0;
    if (ReceiveNow(fd_.Get(), &stale, 1).state == ReceiveState::kData) {
        BadReply(what, "bytes arrived before the request was sent");
    }
    std::array<uint8_t, kv::kFrameHeaderSize> frame{};
    kv::FillFrameHeader(frame.data(), command, 0, session_, 0, 0);
    if (SendNow(fd_.Get(), frame.data(), frame.size()) != frame.size()) {
        throw ToolError(ExitCode::kLost, std::string(what) + ": the request could not be sent");
    }
    ReceiveExactly(frame.data(), frame.size(), what, deadline);
    Reply reply{DecodeReplyHeader(frame.data()), {}};
    const ReplyHeader& header = reply.header;
    const std::string fault = ReplyFault(header, command);
    if (!fault.empty()) {
        BadReply(what, fault);
    }
    if (header.status == kv::kStatusUnsupported) {
        BadReply(what, "the device does not support the command");
    }
    if (header.status != kv::kStatusDone) {
        BadReply(what, "status " + Code(header.status));
    }
    if (header.dataLen != payloadSize || header.count != (payloadSize > 0 ? 1 : 0)) {
        BadReply(what, "it announces " + std::to_string(header.count) + " x " +
                           std::to_string(header.dataLen) + " bytes instead of " +
                           std::to_string(payloadSize));
    }
    reply.payload.resize(payloadSize);
    ReceiveExactly(reply.payload.data(), payloadSize, what, deadline);
    session_ = header.session;
    return reply;
}

uint32_t ProtocolClient::Login() {
    return Request(kv::kCmdLogin, "login", 0).header.session;
}

uint32_t ProtocolClient::Heartbeat() {
    return Request(kv::kCmdHeartbeat, "heartbeat", 0).header.session;
}

std::array<uint8_t, kv::kSerialSize> ProtocolClient::SerialNumber() {
    const Reply reply = Request(kv::kCmdGetSerialNum, "serial number", kv::kSerialSize);
    std::array<uint8_t, kv::kSerialSize> serial{};
    std::copy(reply.payload.begin(), reply.payload.end(), serial.begin());
    if (std::find(serial.begin(), serial.end(), 0) != serial.end()) {
        BadReply("serial number", "one of its bytes is 0");
    }
    return serial;
}

DeviceInfo ProtocolClient::Info() {
    const Reply reply = Request(kv::kCmdGetDevInfo, "device information", sizeof(kv::DeviceRecord));
    kv::DeviceRecord record;
    memcpy(&record, reply.payload.data(), sizeof record);
    DeviceInfo info;
    info.name = InfoText(record.ucDEVName, sizeof record.ucDEVName, "the name");
    info.id.assign(record.ucDEVID, record.ucDEVID + kv::kSerialSize);
    info.model = InfoText(record.ucModelCode, sizeof record.ucModelCode, "the model code");
    info.firmware =
        InfoText(record.ucFirmwareVersion, sizeof record.ucFirmwareVersion, "the firmware version");
    info.ic = InfoText(record.ucIcType, sizeof record.ucIcType, "the chip type");
    info.sensor = InfoText(record.ucSensorMan, sizeof record.ucSensorMan, "the sensor type");
    return info;
}

Connected ConnectAny(const std::string& host, uint16_t port, Millis timeout) {
    std::string tried;
    for (Endpoint& endpoint : Resolve(host, port)) {
        Connection connection = Connect(endpoint, Clock::now() + timeout);
        if (connection.state == ConnectState::kConnected) {
            return {std::move(connection.fd), std::move(endpoint)};
        }
        tried += (tried.empty() ? "" : "; ") + endpoint.text + ": " + connection.error;
    }
    throw ToolError(ExitCode::kUnreachable, "cannot connect: " + tried);
}

}  // namespace kvtool
