#include <algorithm>
#include <cstring>

#include "tools/conform/conform.h"

namespace kvtool::conform {

namespace {

constexpr uint16_t kNoCommand = 0x0077;
constexpr uint8_t kHeadByte1 = 27;
constexpr uint32_t kOtherSession = 0x12345678;

Line Open(const ConformRequest& request, Trial* trial) {
    return Line(trial, request.times, request.host, request.commandPort);
}

void ExpectSession(const Known& known, const std::optional<CheckedReply>& reply, Trial* trial) {
    if (reply) {
        trial->Expect(reply->header.session == known.session,
                      "session " + std::to_string(reply->header.session) + " instead of " +
                          std::to_string(known.session));
    }
}

// Any answer to what was just sent is wrong, and the connection must stay usable.
void ExpectSilence(Line* line, Trial* trial) {
    const Bytes bytes = line->Listen();
    trial->Expect(bytes.empty(), "it answers with " + std::to_string(bytes.size()) + " bytes");
    if (trial->Expect(!line->Closed(), "it ends the connection")) {
        (void)Ask(trial, line, kv::kCmdHeartbeat, 0);
    }
}

void Login(const ConformRequest& request, Known* known, Trial* trial) {
    Line line = Open(request, trial);
    const std::optional<CheckedReply> before = Ask(trial, &line, kv::kCmdHeartbeat, 0);
    const std::optional<CheckedReply> login = Ask(trial, &line, kv::kCmdLogin, 0);
    const std::optional<CheckedReply> after = Ask(trial, &line, kv::kCmdHeartbeat, 0);
    if (!before || !login || !after) {
        return;
    }
    trial->Expect(login->header.session == before->header.session,
                  "the reply to the login does not carry the session from before it");
    trial->Expect(after->header.session != 0, "there is no session after the login");
    known->session = after->header.session;
}

void Session(const ConformRequest& request, Known* known, Trial* trial) {
    Line line = Open(request, trial);
    ExpectSession(*known, Ask(trial, &line, kv::kCmdLogin, 0), trial);
    ExpectSession(*known, Ask(trial, &line, kv::kCmdHeartbeat, 0), trial);
}

void Logout(const ConformRequest& request, Known* known, Trial* trial) {
    Line line = Open(request, trial);
    ExpectSession(*known, Ask(trial, &line, kv::kCmdLogout, 0), trial);
    ExpectSession(*known, Ask(trial, &line, kv::kCmdHeartbeat, 0), trial);
}

void Serial(const ConformRequest& request, Known* known, Trial* trial) {
    for (int i = 0; i < 2; ++i) {
        Line line = Open(request, trial);
        const auto reply = Ask(trial, &line, kv::kCmdGetSerialNum, kv::kSerialSize);
        if (!reply) {
            return;
        }
        trial->Expect(i == 0 || reply->payload == known->serial, "the number changes");
        known->serial = reply->payload;
    }
    trial->Expect(std::find(known->serial.begin(), known->serial.end(), 0) == known->serial.end(),
                  "one of its bytes is 0");
}

void ExpectText(const char* field, size_t size, const std::string& name, Trial* trial) {
    const FieldText text = ReadField(field, size);
    trial->Expect(text.terminated, "the " + name + " has no NUL byte");
    trial->Expect(!text.text.empty(), "the " + name + " is empty");
    trial->Expect(
        std::all_of(field + text.text.size(), field + size, [](char byte) { return byte == '\0'; }),
        "the bytes after the " + name + " are not 0");
}

void Information(const ConformRequest& request, Known* known, Trial* trial) {
    Line line = Open(request, trial);
    const auto reply = Ask(trial, &line, kv::kCmdGetDevInfo, sizeof(kv::DeviceRecord));
    if (!reply) {
        return;
    }
    kv::DeviceRecord record;
    memcpy(&record, reply->payload.data(), sizeof record);
    trial->Expect(record.ucHeadByte0 == 0 && record.ucHeadByte1 == kHeadByte1,
                  "the record does not begin with the bytes 0 and 27");
    trial->Expect(record.reserved[0] == 0 && record.reserved[1] == 0,
                  "the reserved bytes are not 0");
    ExpectText(record.ucDEVName, sizeof record.ucDEVName, "device name", trial);
    ExpectText(record.ucModelCode, sizeof record.ucModelCode, "model", trial);
    ExpectText(record.ucFirmwareVersion, sizeof record.ucFirmwareVersion, "firmware", trial);
    ExpectText(record.ucIcType, sizeof record.ucIcType, "chip type", trial);
    ExpectText(record.ucSensorMan, sizeof record.ucSensorMan, "sensor type", trial);
    trial->Expect(Bytes(record.ucDEVID, record.ucDEVID + kv::kSerialSize) == known->serial,
                  "the device ID is not the serial number");
    known->firmware = ReadField(record.ucFirmwareVersion, sizeof record.ucFirmwareVersion).text;
    known->ic = ReadField(record.ucIcType, sizeof record.ucIcType).text;
    known->sensor = ReadField(record.ucSensorMan, sizeof record.ucSensorMan).text;
}

void Unknown(const ConformRequest& request, Known* known, Trial* trial) {
    Line line = Open(request, trial);
    line.Send(RequestFrame(kNoCommand));
    ExpectSession(*known, ReadReply(trial, &line, kNoCommand, kv::kStatusUnsupported, 0), trial);
    (void)Ask(trial, &line, kv::kCmdHeartbeat, 0);
}

void Kind(const ConformRequest& request, Known* /*known*/, Trial* trial) {
    Line line = Open(request, trial);
    Bytes frame = RequestFrame(kv::kCmdHeartbeat);
    kv::PutLe16(frame.data(), 1);
    line.Send(frame);
    ExpectSilence(&line, trial);
}

void TwoAtOnce(const ConformRequest& request, Known* /*known*/, Trial* trial) {
    Line line = Open(request, trial);
    Bytes both = RequestFrame(kv::kCmdHeartbeat);
    const Bytes second = RequestFrame(kv::kCmdLogout);
    both.insert(both.end(), second.begin(), second.end());
    line.Send(both);
    (void)ReadReply(trial, &line, kv::kCmdHeartbeat, kv::kStatusDone, 0);
    ExpectSilence(&line, trial);
}

void Ignored(const ConformRequest& request, Known* known, Trial* trial) {
    Line line = Open(request, trial);
    Bytes frame = RequestFrame(kv::kCmdHeartbeat, kOtherSession, 8, 1);
    kv::PutLe16(frame.data() + offsetof(kv::FrameHeader, usVersion), 0x7777);
    kv::PutLe16(frame.data() + offsetof(kv::FrameHeader, usStatus), 0x7777);
    std::fill(frame.begin() + offsetof(kv::FrameHeader, reserved), frame.end(), 0x77);
    frame.insert(frame.end(), 8, 0x77);
    line.Send(frame);
    ExpectSession(*known, ReadReply(trial, &line, kv::kCmdHeartbeat, kv::kStatusDone, 0), trial);
}

void Connections(const ConformRequest& request, Known* known, Trial* trial) {
    constexpr int kLines = 8;
    std::vector<Line> lines;
    lines.reserve(kLines);
    for (int i = 0; i < kLines; ++i) {
        lines.push_back(Open(request, trial));
    }
    for (Line& line : lines) {
        ExpectSession(*known, Ask(trial, &line, kv::kCmdHeartbeat, 0), trial);
    }
}

}  // namespace

const std::vector<Rule>& CommandRules() {
    static const std::vector<Rule> rules = {
        {"login", "Any login succeeds; its reply carries the session from before it", Login},
        {"session", "All connections share one session, however often a client logs in", Session},
        {"logout", "A logout is answered and ends nothing", Logout},
        {"serial", "The serial number has 8 bytes, none of them 0, and never changes", Serial},
        {"information", "Device information has 464 bytes; its texts end with a NUL byte",
         Information},
        {"unknown", "An unknown command is answered with status 2", Unknown},
        {"kind", "A request of a kind other than 0 gets no answer", Kind},
        {"at_once", "Only the first of two requests that arrive at once is answered", TwoAtOnce},
        {"ignored", "Version, status, session, reserved bytes and payload are ignored", Ignored},
        {"connections", "Eight clients are served at the same time", Connections},
    };
    return rules;
}

}  // namespace kvtool::conform
