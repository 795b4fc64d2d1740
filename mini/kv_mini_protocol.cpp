#define KV_TRACE_NAME "kv_mini_protocol"
#include "mini/kv_mini_protocol.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "hv/hloop.h"
#include "hv/hsocket.h"
#include "mini/kv_hvloop_pool.h"
#include "mini/kv_mini_frame.h"
#include "mini/kv_mini_session.h"

namespace {

constexpr int kHeaderLen = static_cast<int>(kv::kFrameHeaderSize);
constexpr uint32_t kQueueMax = 65536;
// Probe a peer after a minute of silence, then every fifteen seconds. Drop it after four missing
// answers.
constexpr struct {
    int level;
    int name;
    int value;
} kKeepalive[] = {
    {SOL_SOCKET, SO_KEEPALIVE, 1},
    {IPPROTO_TCP, TCP_KEEPIDLE, 60},
    {IPPROTO_TCP, TCP_KEEPINTVL, 15},
    {IPPROTO_TCP, TCP_KEEPCNT, 4},
};

struct Command {
    uint16_t code;
    CommandHandler handler;
    const char* name;
};

constexpr Command kCommands[] = {
    {kv::kCmdLogin, __KV_ProcessLogin, "CMD_ACT_LOGIN"},
    {kv::kCmdLogout, __KV_ProcessReplyOnly, "CMD_ACT_LOGOUT"},
    {kv::kCmdGetDevInfo, __KV_ProcessKVGetDeviceInfo, "CMD_SYS_GETDEVINFO"},
    {kv::kCmdHeartbeat, __KV_ProcessReplyOnly, "CMD_ACT_HEADRTBEAT"},
    {kv::kCmdGetSerialNum, __KV_ProcessGetSerialNum, "CMD_GET_SERIALNUM"},
    {kv::kCmdUpgrade, __KV_ProcessUpgrade, "CMD_SYS_UPGRADE"},
};

struct ProtocolState {
    int inited;
    hio_t* listener;
    // Kept: all connections share one session record and one reply buffer, without a lock. The
    // protocol has one session. Requests that workers handle at the same moment may mix their
    // replies; tests/support/tsan.supp names this place.
    SessionRecord session;
    std::atomic<uint8_t*> reply;
};

ProtocolState g_protocol;

const Command* FindCommand(uint16_t code) {
    for (const Command& command : kCommands) {
        if (command.code == code) {
            return &command;
        }
    }
    return nullptr;
}

int __KV_KorvanProtocolHandle(hio_t* io, const uint8_t* request, int requestLen, uint8_t* reply,
                              int* replyLen) {
    // A chunk without a complete header is refused like a request of another kind.
    if (requestLen < kHeaderLen || kv::GetLe16(request) != kv::kFrameKind) {
        KV_ERROR("UNSUPPORT!!");
        return 0;
    }
    memset(reply + offsetof(kv::FrameHeader, uiDataLen), 0, 8);
    const uint16_t code = kv::GetLe16(request + offsetof(kv::FrameHeader, usCmd));
    const Command* command = FindCommand(code);
    if (command == nullptr) {
        KV_ERROR("@@@@@@@@@@@@@@@@@: Not supported this command :  %04X", code);
        KV_SessionReplyHeader(io, request, reply, kv::kStatusUnsupported, 0, 0);
        *replyLen = kHeaderLen;
        return 0;
    }
    const unsigned long session = kv::GetLe32(request + offsetof(kv::FrameHeader, uiSessionId));
    KV_DEBUG("ID:%lu CMD:%s", session, command->name);
    return command->handler(io, request, requestLen, reply, replyLen);
}

void SendReply(hio_t* io, const uint8_t* reply, int replyLen) {
    const int result = hio_write(io, reply, static_cast<size_t>(replyLen));
    const int error = errno;
    // A client that asks and never reads costs one queued reply; its next request waits.
    if (hio_write_bufsize(io) > 0) {
        (void)hio_read_stop(io);
    }
    if (result > 0) {
        return;
    }
    // Kept: the server itself closes the connection only for ENOTTY. It also logs a failure for a
    // reply that was queued entirely (result 0). After any failed send the event loop closes the
    // connection.
    if (error == ENOTTY) {
        (void)hio_close(io);
    }
    KV_FAILED_IN("__KV_KorvanProtocolRead", "io write failed:%d errno:%d!", result, error);
}

void ReadOn(hio_t* io, const void* /*buf*/, int /*writebytes*/) {
    if (hio_write_bufsize(io) == 0) {
        (void)hio_read_start(io);
    }
}

void __KV_KorvanProtocolRead(hio_t* io, void* buf, int readbytes) {
    const uint8_t* request = static_cast<const uint8_t*>(buf);
    uint8_t* reply = g_protocol.reply;
    int replyLen = 0;
    // No buffer: the server is down, and this connection waits for its loop to end.
    if (reply != nullptr && !KV_HV_LoopPoolIsEnding()) {
        (void)__KV_KorvanProtocolHandle(io, request, readbytes, reply, &replyLen);
    }
    if (replyLen < 1) {
        KV_FAILED("Korvan Protocol Handle failed!");
        return;
    }
    // The connection now belongs to the upgrade receiver, which sends its own replies.
    if (kv::GetLe16(request + offsetof(kv::FrameHeader, usCmd)) == kv::kCmdUpgrade) {
        return;
    }
    SendReply(io, reply, replyLen);
}

struct AddressTexts {
    char local[SOCKADDR_STRLEN];
    char peer[SOCKADDR_STRLEN];
};

void FormatAddresses(hio_t* io, AddressTexts* texts) {
    (void)sockaddr_str(reinterpret_cast<sockaddr_u*>(hio_localaddr(io)), texts->local,
                       sizeof(texts->local));
    (void)sockaddr_str(reinterpret_cast<sockaddr_u*>(hio_peeraddr(io)), texts->peer,
                       sizeof(texts->peer));
}

void __KV_KorvanProtocolClose(hio_t* io) {
    AddressTexts texts;
    FormatAddresses(io, &texts);
    KV_DEBUG("connect-> io:%p tid=%lu connfd=%d [%s] <= [%s]\n", static_cast<void*>(io),
             pthread_self(), hio_fd(io), texts.local, texts.peer);
}

void Serve(hio_t* io) {
    AddressTexts texts;
    FormatAddresses(io, &texts);
    KV_DEBUG_IN("__KV_Protocol_OnAccept", "connect-> io:%p,tid=%lu fd=%d  [%s] <= [%s]\n",
                static_cast<void*>(io), pthread_self(), hio_fd(io), texts.local, texts.peer);
    for (const auto& option : kKeepalive) {
        (void)setsockopt(hio_fd(io), option.level, option.name, &option.value,
                         sizeof(option.value));
    }
    hio_set_max_write_bufsize(io, kQueueMax);
    hio_setcb_close(io, __KV_KorvanProtocolClose);
    hio_setcb_write(io, ReadOn);
    hio_setcb_read(io, __KV_KorvanProtocolRead);
    (void)hio_read(io);
}

void __KV_Protocol_OnAccept(hio_t* io) {
    hio_set_context(io, &g_protocol.session);
    KV_INFO("__KV_Protocol_OnAccept");
    KV_HV_HandOver(io, Serve);
}

void OpenListener(hloop_t* loop, void* port) {
    g_protocol.listener =
        hloop_create_tcp_server(loop, "", *static_cast<int*>(port), __KV_Protocol_OnAccept);
}

void CloseListener(hloop_t* /*loop*/, void* /*arg*/) {
    (void)hio_close(g_protocol.listener);
    g_protocol.listener = nullptr;
}

}  // namespace

int KV_MINI_ProtocolInit(int port) {
    if (g_protocol.inited == 1) {
        KV_FAILED("Korvan Protocol is Inited!");
        return -1;
    }
    hloop_t* loop = KV_HV_GetAcceptLoop();
    KV_DEBUG("loop == %p", static_cast<void*>(loop));
    // Before opening the socket: a client may be served before this function continues.
    memset(&g_protocol.session, 0, sizeof(g_protocol.session));
    g_protocol.reply = static_cast<uint8_t*>(malloc(kReplyBufferSize));
    if (loop != nullptr && g_protocol.reply != nullptr) {
        KV_HV_RunOnLoop(loop, OpenListener, &port);
    }
    if (g_protocol.listener == nullptr) {
        free(g_protocol.reply.exchange(nullptr));
        KV_FAILED("create tcp server failed!");
        return -1;
    }
    g_protocol.inited = 1;
    KV_DEBUG("MINI ProtocolInit Init Success!");
    return 0;
}

int KV_MINI_ProtocolDeInit(void) {
    if (g_protocol.inited != 1) {
        KV_FAILED("Korvan Protocol is DeInit!");
        return -1;
    }
    g_protocol.inited = 0;
    KV_HV_RunOnLoop(KV_HV_GetAcceptLoop(), CloseListener, nullptr);
    // Workers are still running. A callback in progress may hold the buffer; later ones find none.
    // Once every loop is between callbacks, nobody uses it.
    uint8_t* reply = g_protocol.reply.exchange(nullptr);
    KV_HV_LoopPoolSettle();
    free(reply);
    KV_DEBUG("MINI ProtocolInit DeInit Success!");
    return 0;
}
