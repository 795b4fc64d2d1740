#define KV_TRACE_NAME "kv_mini_protocol"
#include "mini/kv_mini_session.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "mini/kv_mini_frame.h"
#include "mini/kv_mini_upgrade.h"

namespace {

constexpr int kHeaderLen = static_cast<int>(kv::kFrameHeaderSize);
constexpr uint16_t kStatusInProgress = 0x1002;
constexpr uint8_t kDeviceRecordVersion = 27;

// Not in the record: it survives a restart of the server, so no session ID repeats.
uint32_t g_sessionCounter;

SessionRecord* SessionOf(hio_t* io) {
    return static_cast<SessionRecord*>(hio_context(io));
}

uint16_t CommandOf(const uint8_t* frame) {
    return kv::GetLe16(frame + offsetof(kv::FrameHeader, usCmd));
}

uint32_t DrawByte() {
    return static_cast<uint32_t>(rand() % 255 + 1);
}

uint32_t NextSessionId() {
    uint32_t value = g_sessionCounter;
    if (value == 0) {
        srand(static_cast<unsigned>(time(nullptr)));
        // Kept: each draw replaces the one before, so the ID is one random byte above 24 zero bits,
        // plus one.
        for (const unsigned shift : {0U, 8U, 16U}) {
            g_sessionCounter = DrawByte() << shift;
            (void)usleep(10);
        }
        value = DrawByte() << 24U;
    }
    g_sessionCounter = value + 1;
    return g_sessionCounter;
}

void DrawSerial(SessionRecord* session) {
    uint8_t serial[kv::kSerialSize];
    srand(static_cast<unsigned>(time(nullptr)));
    KV_DEBUG_IN("__KV_ProcessGetSerialNum", "SerialNum:");
    for (uint8_t& byte : serial) {
        byte = static_cast<uint8_t>(DrawByte());
        (void)usleep(byte);
        (void)printf("0x%02X ", byte);
    }
    memcpy(session->ucSerialNum, serial, sizeof(serial));
    (void)printf("\n");
}

}  // namespace

void KV_SessionReplyHeader(hio_t* io, const uint8_t* request, uint8_t* reply, uint16_t status,
                           uint32_t dataLen, uint32_t count) {
    kv::FillFrameHeader(reply, CommandOf(request), status, SessionOf(io)->uiSessionId, dataLen,
                        count);
}

int __KV_ProcessLogin(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                      int* replyLen) {
    (void)requestLen;
    *replyLen = kHeaderLen;
    SessionRecord* session = SessionOf(io);
    if (reply == nullptr || session == nullptr) {
        KV_FAILED("priv data is null!");
        return 0;
    }
    // Kept: the header is filled before the ID is drawn. The client learns a new ID from the next
    // reply.
    KV_SessionReplyHeader(io, request, reply, kv::kStatusDone, 0, 0);
    if (session->ucLogin == 0) {
        session->ucLogin = 1;
        session->uiSessionId = NextSessionId();
        KV_DEBUG("New SessionId, SessionID = %u", session->uiSessionId);
    }
    return 0;
}

int __KV_ProcessReplyOnly(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                          int* replyLen) {
    (void)requestLen;
    KV_SessionReplyHeader(io, request, reply, kv::kStatusDone, 0, 0);
    *replyLen = kHeaderLen;
    return 0;
}

int __KV_ProcessGetSerialNum(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                             int* replyLen) {
    (void)requestLen;
    SessionRecord* session = SessionOf(io);
    if (session->ucSerialNum[0] == 0) {
        DrawSerial(session);
    }
    memcpy(reply + kHeaderLen, session->ucSerialNum, kv::kSerialSize);
    KV_SessionReplyHeader(io, request, reply, kv::kStatusDone, kv::kSerialSize, 1);
    *replyLen = kHeaderLen + static_cast<int>(kv::kSerialSize);
    return 0;
}

int __KV_ProcessKVGetDeviceInfo(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                                int* replyLen) {
    (void)requestLen;
    KV_SessionReplyHeader(io, request, reply, kStatusInProgress, sizeof(kv::DeviceRecord), 1);
    kv::DeviceRecord device = {};
    device.ucHeadByte1 = kDeviceRecordVersion;
    memcpy(device.ucDEVName, kv::kIcType, sizeof(kv::kIcType));
    memcpy(device.ucDEVID, SessionOf(io)->ucSerialNum, kv::kSerialSize);
    memcpy(device.ucModelCode, kv::kModelCode, sizeof(kv::kModelCode));
    memcpy(device.ucFirmwareVersion, kv::kDeviceName, sizeof(kv::kDeviceName));
    memcpy(device.ucIcType, kv::kIcType, sizeof(kv::kIcType));
    memcpy(device.ucSensorMan, kv::kSensorType, sizeof(kv::kSensorType));
    memcpy(reply + kHeaderLen, &device, sizeof(device));
    KV_DEBUG("ucDEVName = %s, ucDEVID = %s, ucFirmwareVersion = %s", device.ucDEVName,
             device.ucDEVID, device.ucFirmwareVersion);
    kv::PutLe16(reply + offsetof(kv::FrameHeader, usStatus), kv::kStatusDone);
    *replyLen = kHeaderLen + static_cast<int>(sizeof(device));
    return 0;
}

int __KV_ProcessUpgrade(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                        int* replyLen) {
    (void)reply;
    // Kept: the product wraps at 32 bits. A product below the trailer's size gives a length that no
    // transfer reaches; the read time-out then ends the connection.
    const uint32_t announced = kv::GetLe32(request + offsetof(kv::FrameHeader, uiDataLen)) *
                               kv::GetLe32(request + offsetof(kv::FrameHeader, uiCount));
    const uint32_t packageLength = announced - static_cast<uint32_t>(kv::kMd5TrailerSize);
    SessionOf(io)->uiUpgradeState = kUpgradeStateRunning;
    (void)KV_KorvanUpgradeStart(io, packageLength, request + kHeaderLen, requestLen - kHeaderLen);
    // A valid length tells the caller that the request was handled. The caller sends nothing for
    // this command.
    *replyLen = kHeaderLen;
    return 0;
}
