// Wire layout of the mini protocol: the 32-byte header of every request and reply, and the records
// that follow it. Shared by the server and the PC tool.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/kv_le.h"

namespace kv {

// Command codes.
constexpr uint16_t kCmdLogin = 0x0000;
constexpr uint16_t kCmdLogout = 0x0001;
constexpr uint16_t kCmdHeartbeat = 0x0006;
constexpr uint16_t kCmdGetSerialNum = 0x0101;
constexpr uint16_t kCmdUpgrade = 0x2002;
constexpr uint16_t kCmdGetDevInfo = 0x2003;

// Frame values.
constexpr uint16_t kFrameKind = 0;
constexpr uint16_t kFrameVersion = 0x0101;
constexpr uint16_t kStatusDone = 0;
constexpr uint16_t kStatusUnsupported = 2;
constexpr uint16_t kStatusUpgradeBusy = 0xFFFF;

// Header, 32 bytes. Every field is little-endian.
struct FrameHeader {
    uint8_t usKind[2];
    uint8_t usVersion[2];
    uint8_t usCmd[2];
    uint8_t usStatus[2];
    uint8_t uiSessionId[4];
    uint8_t uiDataLen[4];
    uint8_t uiCount[4];
    uint8_t reserved[12];
};
static_assert(sizeof(FrameHeader) == 32, "wire size of the frame header");
static_assert(offsetof(FrameHeader, uiSessionId) == 8 && offsetof(FrameHeader, uiDataLen) == 12 &&
                  offsetof(FrameHeader, uiCount) == 16,
              "wire offsets of the frame header");

constexpr size_t kFrameHeaderSize = sizeof(FrameHeader);
constexpr size_t kSerialSize = 8;

// Payload of the device information reply.
struct DeviceRecord {
    uint8_t ucHeadByte0;
    uint8_t ucHeadByte1;
    uint8_t reserved[2];
    char ucDEVName[64];
    char ucDEVID[100];
    char ucModelCode[200];
    char ucFirmwareVersion[64];
    char ucIcType[16];
    char ucSensorMan[16];
};
static_assert(sizeof(DeviceRecord) == 464, "wire size of the device record");
static_assert(offsetof(DeviceRecord, ucDEVID) == 100 - 32 &&
                  offsetof(DeviceRecord, ucModelCode) == 200 - 32 &&
                  offsetof(DeviceRecord, ucFirmwareVersion) == 400 - 32 &&
                  offsetof(DeviceRecord, ucIcType) == 464 - 32 &&
                  offsetof(DeviceRecord, ucSensorMan) == 480 - 32,
              "wire offsets of the device record");

// The MD5 trailer that follows a package on the wire: "MD5:", 32 lowercase hex digits, one byte.
constexpr char kMd5Tag[] = "MD5:";
constexpr size_t kMd5TagSize = 4;
constexpr size_t kMd5HexSize = 32;
constexpr size_t kMd5TrailerSize = 37;

// Fills a standard header in place: kind 0, version 0x0101, reserved bytes zero.
inline void FillFrameHeader(uint8_t* frame, uint16_t command, uint16_t status, uint32_t session,
                            uint32_t dataLen, uint32_t count) {
    memset(frame, 0, kFrameHeaderSize);
    PutLe16(frame + offsetof(FrameHeader, usKind), kFrameKind);
    PutLe16(frame + offsetof(FrameHeader, usVersion), kFrameVersion);
    PutLe16(frame + offsetof(FrameHeader, usCmd), command);
    PutLe16(frame + offsetof(FrameHeader, usStatus), status);
    PutLe32(frame + offsetof(FrameHeader, uiSessionId), session);
    PutLe32(frame + offsetof(FrameHeader, uiDataLen), dataLen);
    PutLe32(frame + offsetof(FrameHeader, uiCount), count);
}

}  // namespace kv
