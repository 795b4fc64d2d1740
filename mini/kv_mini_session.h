// The session that all connections of the protocol server share, and the handlers of its commands.
#pragma once

#include <cstdint>

#include "hv/hloop.h"

// One for the whole server; the context of every accepted connection. Zeroed when the server
// starts. Worker threads read and write it without a lock, which the protocol accepts: each field
// is a token that any client may use, and the last writer wins.
struct SessionRecord {
    uint8_t reserved[8];
    uint32_t uiSessionId;
    uint8_t ucLogin;
    // No byte of a serial number is 0, so a first byte of 0 means that there is none yet.
    uint8_t ucSerialNum[8];
    uint32_t uiUpgradeState;
};

constexpr uint32_t kUpgradeStateRunning = 3;

// Signature of a command handler. It writes the whole reply, header included, and stores its
// length; a length below 1 reports a request that could not be handled. All run on the connection's
// loop thread.
//   request   whole frame header, then what else came in the same read; `requestLen` bytes, at
//             least kv::kFrameHeaderSize
//   reply     kReplyBufferSize bytes
// Return 0.
typedef int (*CommandHandler)(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                              int* replyLen);

constexpr int kReplyBufferSize = 10240;

// Fills the header of a reply to `request`, with the session ID of the connection's record as it
// stands now.
void KV_SessionReplyHeader(hio_t* io, const uint8_t* request, uint8_t* reply, uint16_t status,
                           uint32_t dataLen, uint32_t count);

// Any login succeeds. The reply to the one that makes a session still carries the ID from before.
int __KV_ProcessLogin(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                      int* replyLen);
// Logout and heartbeat: an acknowledgement, nothing else.
int __KV_ProcessReplyOnly(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                          int* replyLen);
// The serial number, drawn at the first query; that one blocks for up to about 2 ms.
int __KV_ProcessGetSerialNum(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                             int* replyLen);
int __KV_ProcessKVGetDeviceInfo(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                                int* replyLen);
// Hands the connection to the upgrade receiver, which answers by itself. Blocks for about 1.1 s and
// as long as "sync" takes.
int __KV_ProcessUpgrade(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                        int* replyLen);
