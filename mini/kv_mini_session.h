// The one session of the protocol server, and its command handlers.
#pragma once

#include <cstdint>

#include "hv/hloop.h"

// Shared by the whole server: it is the context of every accepted connection. Zeroed when the
// server starts. Worker threads use it without a lock. The protocol allows that: the record belongs
// to all clients, and the last writer wins.
struct SessionRecord {
    uint8_t reserved[8];
    uint32_t uiSessionId;
    uint8_t ucLogin;
    // Serial number bytes are never 0, so a first byte of 0 means that no number has been drawn.
    uint8_t ucSerialNum[8];
    uint32_t uiUpgradeState;
};

constexpr uint32_t kUpgradeStateRunning = 3;

// A command handler. It writes the whole reply, header included, and stores its length. A length
// below 1 reports a request that could not be handled. Handlers run on the connection's loop thread
// and return 0.
//   request   frame header and the rest of the same read; `requestLen` bytes, at least
//             kv::kFrameHeaderSize
//   reply     kReplyBufferSize bytes
typedef int (*CommandHandler)(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                              int* replyLen);

constexpr int kReplyBufferSize = 10240;

// Fills the header of a reply to `request` with the session ID that the record holds now.
void KV_SessionReplyHeader(hio_t* io, const uint8_t* request, uint8_t* reply, uint16_t status,
                           uint32_t dataLen, uint32_t count);

// Every login succeeds. The reply to the login that creates the session still carries the previous
// ID.
int __KV_ProcessLogin(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                      int* replyLen);
// Logout and heartbeat: only an acknowledgement.
int __KV_ProcessReplyOnly(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                          int* replyLen);
// The serial number. The first query draws it and blocks for up to about 2 ms.
int __KV_ProcessGetSerialNum(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                             int* replyLen);
// The device record: compiled-in constants, and the serial number if one has been drawn.
int __KV_ProcessKVGetDeviceInfo(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                                int* replyLen);
// Hands the connection to the upgrade receiver, which sends its own replies. Blocks for about 1.1 s
// plus the time that "sync" takes.
int __KV_ProcessUpgrade(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                        int* replyLen);
