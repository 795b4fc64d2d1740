// Sending, accepting and receiving: what libevent calls when an io's descriptor or timer is ready.
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

#include "common/kv_time.h"
#include "hv_internal.h"

#define KV_TRACE_NAME "hv/stream"
#include "common/kv_mini_trace.h"

namespace {

// Bytes queued on all ios of the process.
std::atomic<size_t> g_queued{0};

bool IsTransient(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// For accept errors that do not concern one connection, for example a lack of descriptors. The
// connection stays in the backlog, so the listener's descriptor would be readable again at once.
// The listener pauses instead.
void PauseAccept(hio_t* io, int error) {
    if (!io->starved) {
        KV_ERROR("accept failed: %s, trying again every %u ms", strerror(error), kHvAcceptRetryMs);
        io->starved = true;
    }
    (void)event_del(&io->readEvent);
    if (HvStartTimer(io->base.loop, &io->timerEvent, kHvAcceptRetryMs) != 0) {
        (void)event_add(&io->readEvent, nullptr);
    }
}

void Accept(hio_t* listener) {
    hloop_t* loop = listener->base.loop;
    sockaddr_u peer{};
    socklen_t length = sizeof(peer);
    const int fd = accept4(listener->fd, &peer.sa, &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (!IsTransient(errno) && errno != ECONNABORTED) {
            PauseAccept(listener, errno);
        }
        return;
    }
    listener->starved = false;
    hio_t* io = HvNewIo(loop, fd, HvKind::kStream);
    if (io == nullptr) {
        return;
    }
    io->peer = peer;
    if (listener->onAccept == nullptr) {
        HvCloseNow(io);
        return;
    }
    listener->onAccept(io);
}

// A NUL follows the data, so text functions stay within it. Reads once for each wake-up: the
// callback may close or move the io, so the code must not touch it afterwards.
void Receive(hio_t* io) {
    char* const buffer = io->base.loop->readBuffer;
    const bool datagram = io->kind == HvKind::kDatagram;
    socklen_t length = sizeof(io->peer);
    const ssize_t got = datagram ? recvfrom(io->fd, buffer, kHvReadMax, 0, &io->peer.sa, &length)
                                 : recv(io->fd, buffer, kHvReadMax, 0);
    if (got < 0) {
        if (!datagram && !IsTransient(errno)) {
            HvCloseNow(io);
        }
        return;
    }
    if (got == 0 && !datagram) {
        (void)hio_close(io);
        return;
    }
    buffer[got] = '\0';
    if (io->readTimeoutMs > 0) {
        io->lastArrivalMs = kv::MonotonicMilliseconds();
    }
    if (io->onRead != nullptr) {
        io->onRead(io, buffer, static_cast<int>(got));
    }
}

// False if the connection is lost.
bool Flush(hio_t* io) {
    while (evbuffer_get_length(io->output) > 0) {
        const auto size = static_cast<ev_ssize_t>(evbuffer_get_contiguous_space(io->output));
        const unsigned char* bytes = evbuffer_pullup(io->output, size);
        const ssize_t sent = send(io->fd, bytes, static_cast<size_t>(size), MSG_NOSIGNAL);
        if (sent < 0) {
            return IsTransient(errno);
        }
        (void)evbuffer_drain(io->output, static_cast<size_t>(sent));
        g_queued.fetch_sub(static_cast<size_t>(sent));
    }
    HvDropOutput(io);
    (void)event_del(&io->writeEvent);
    return true;
}

int SendDatagram(hio_t* io, const void* buf, size_t len) {
    if (io->peer.sa.sa_family != AF_INET) {
        errno = EDESTADDRREQ;
        return -1;
    }
    return static_cast<int>(
        sendto(io->fd, buf, len, MSG_NOSIGNAL, &io->peer.sa, sizeof(io->peer.sin)));
}

bool Queue(hio_t* io, const char* bytes, size_t len) {
    if (io->output == nullptr) {
        io->output = evbuffer_new();
    }
    const size_t all = g_queued.fetch_add(len) + len;
    if (io->output == nullptr || all > kHvOutputMax ||
        evbuffer_get_length(io->output) + len > io->outputMax ||
        evbuffer_add(io->output, bytes, len) != 0) {
        g_queued.fetch_sub(len);
        errno = ENOBUFS;
        return false;
    }
    // An io that another thread is handing over starts to send when it starts to read.
    return !HvOnLoopThread(io->base.loop) ||
           (HvAssign(io) == 0 && event_add(&io->writeEvent, nullptr) == 0);
}

// The io is closed after the current callback, so the caller may still use it.
int FailWrite(hio_t* io) {
    const int error = errno;
    io->broken = true;
    HvPost(io->base.loop, &io->closeRequest);
    errno = error;
    return -1;
}

}  // namespace

void HvDropOutput(hio_t* io) {
    if (io->output != nullptr) {
        g_queued.fetch_sub(evbuffer_get_length(io->output));
        evbuffer_free(io->output);
        io->output = nullptr;
    }
}

size_t hio_write_bufsize(hio_t* io) {
    return io->output != nullptr ? evbuffer_get_length(io->output) : 0;
}

void hio_set_max_write_bufsize(hio_t* io, uint32_t size) {
    io->outputMax = size;
}

int hio_write(hio_t* io, const void* buf, size_t len) {
    if (io->base.loop == nullptr || io->closed || io->closing || io->broken) {
        errno = EBADF;
        return -1;
    }
    if (len > INT_MAX) {
        errno = EMSGSIZE;
        return -1;
    }
    if (io->kind == HvKind::kDatagram) {
        return SendDatagram(io, buf, len);
    }
    ssize_t sent = 0;
    if (io->output == nullptr) {
        sent = send(io->fd, buf, len, MSG_NOSIGNAL);
        if (sent < 0 && !IsTransient(errno)) {
            return FailWrite(io);
        }
        sent = sent < 0 ? 0 : sent;
    }
    const auto done = static_cast<size_t>(sent);
    if (done < len && !Queue(io, static_cast<const char*>(buf) + done, len - done)) {
        return FailWrite(io);
    }
    if (done == 0) {
        errno = EAGAIN;
    }
    return static_cast<int>(sent);
}

void HvOnReadable(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
    auto* io = static_cast<hio_t*>(arg);
    hloop_t* loop = io->base.loop;
    if (io->kind == HvKind::kListener) {
        Accept(io);
    } else {
        Receive(io);
    }
    HvReap(loop);
}

void HvOnWritable(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
    auto* io = static_cast<hio_t*>(arg);
    hloop_t* loop = io->base.loop;
    const bool alive = Flush(io);
    if (!alive || (io->closing && io->output == nullptr)) {
        HvCloseNow(io);
    } else if (io->onWrite != nullptr && !io->closing) {
        io->onWrite(io, nullptr, 0);
    }
    HvReap(loop);
}

void HvOnIoTimer(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
    auto* io = static_cast<hio_t*>(arg);
    hloop_t* loop = io->base.loop;
    if (io->kind == HvKind::kListener) {
        if (event_add(&io->readEvent, nullptr) != 0) {
            (void)HvStartTimer(loop, &io->timerEvent, kHvAcceptRetryMs);
        }
    } else if (io->closing) {
        HvCloseNow(io);
    } else {
        // An arrival only stores its time, so the timer may fire early. It then waits for the rest.
        const int64_t left = io->lastArrivalMs + io->readTimeoutMs - kv::MonotonicMilliseconds();
        if (left > 0) {
            (void)HvStartTimer(loop, &io->timerEvent, static_cast<uint32_t>(left));
        } else {
            (void)hio_close(io);
        }
    }
    HvReap(loop);
}
