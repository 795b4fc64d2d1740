#include <unistd.h>

#include <cerrno>
#include <new>

#include "common/kv_raii.h"
#include "common/kv_time.h"
#include "hv_internal.h"

namespace {

void Link(hloop_t* loop, hio_t* io) {
    const MutexGuard guard(&loop->lock);
    io->base.loop = loop;
    io->prev = nullptr;
    io->next = loop->ios;
    if (io->next != nullptr) {
        io->next->prev = io;
    }
    loop->ios = io;
    loop->nios.fetch_add(1, std::memory_order_acq_rel);
}

// Removes the io from its loop. None of its events or requests runs afterwards.
void Unlink(hio_t* io) {
    hloop_t* loop = io->base.loop;
    if (io->assigned) {
        (void)event_del(&io->readEvent);
        (void)event_del(&io->writeEvent);
        (void)event_del(&io->timerEvent);
        io->assigned = false;
    }
    HvCancel(loop, &io->readRequest);
    HvCancel(loop, &io->closeRequest);
    const MutexGuard guard(&loop->lock);
    (io->prev != nullptr ? io->prev->next : loop->ios) = io->next;
    if (io->next != nullptr) {
        io->next->prev = io->prev;
    }
    loop->nios.fetch_sub(1, std::memory_order_acq_rel);
}

// The descriptor stays open during the callback, which may log its number.
void Finish(hio_t* io) {
    io->closed = true;
    if (io->onClose != nullptr) {
        io->onClose(io);
    }
    (void)close(io->fd);
    io->fd = -1;
    HvDropOutput(io);
}

void OnReadRequest(hevent_t* ev) {
    (void)HvStartRead(static_cast<hio_t*>(hevent_userdata(ev)));
}

void OnCloseRequest(hevent_t* ev) {
    (void)hio_close(static_cast<hio_t*>(hevent_userdata(ev)));
}

}  // namespace

hio_t* HvNewIo(hloop_t* loop, int fd, HvKind kind) {
    auto* io = new (std::nothrow) hio_s;
    if (io == nullptr) {
        (void)close(fd);
        return nullptr;
    }
    io->fd = fd;
    io->kind = kind;
    io->readRequest.event.cb = OnReadRequest;
    io->readRequest.event.userdata = io;
    io->closeRequest.event.cb = OnCloseRequest;
    io->closeRequest.event.userdata = io;
    socklen_t length = sizeof(io->local);
    (void)getsockname(fd, &io->local.sa, &length);
    Link(loop, io);
    return io;
}

int HvAssign(hio_t* io) {
    event_base* base = io->base.loop->base;
    if (!io->assigned) {
        if (event_assign(&io->readEvent, base, io->fd, EV_READ | EV_PERSIST, HvOnReadable, io) !=
                0 ||
            event_assign(&io->writeEvent, base, io->fd, EV_WRITE | EV_PERSIST, HvOnWritable, io) !=
                0 ||
            event_assign(&io->timerEvent, base, -1, 0, HvOnIoTimer, io) != 0) {
            return -1;
        }
        io->assigned = true;
    }
    return 0;
}

int HvStartRead(hio_t* io) {
    if (io->closed || io->closing) {
        // An io that has moved since it began to close goes on sending what is queued.
        if (!io->closed && !io->assigned) {
            io->closing = false;
            (void)hio_close(io);
        }
        errno = EBADF;
        return -1;
    }
    if (io->assigned && event_pending(&io->readEvent, EV_READ, nullptr) != 0) {
        return 0;
    }
    if (HvAssign(io) != 0 || event_add(&io->readEvent, nullptr) != 0 ||
        (io->output != nullptr && event_add(&io->writeEvent, nullptr) != 0)) {
        HvCloseNow(io);
        return -1;
    }
    hio_set_read_timeout(io, io->readTimeoutMs);
    return 0;
}

void HvCloseNow(hio_t* io) {
    hloop_t* loop = io->base.loop;
    Unlink(io);
    Finish(io);
    io->next = loop->dead;
    loop->dead = io;
}

void HvReap(hloop_t* loop) {
    while (loop->dead != nullptr) {
        hio_t* io = loop->dead;
        loop->dead = io->next;
        delete io;
    }
}

int hio_read(hio_t* io) {
    hloop_t* loop = io->base.loop;
    if (loop == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    if (HvOnLoopThread(loop)) {
        return HvStartRead(io);
    }
    HvPost(loop, &io->readRequest);
    return 0;
}

int hio_read_stop(hio_t* io) {
    if (io->assigned) {
        (void)event_del(&io->readEvent);
    }
    return 0;
}

int hio_close(hio_t* io) {
    hloop_t* loop = io->base.loop;
    if (loop == nullptr) {
        if (!io->closed) {
            Finish(io);
            delete io;
        }
        return 0;
    }
    if (!HvOnLoopThread(loop)) {
        HvPost(loop, &io->closeRequest);
        return 0;
    }
    if (io->closed || io->closing) {
        return 0;
    }
    if (io->output == nullptr || io->broken || HvAssign(io) != 0 ||
        event_add(&io->writeEvent, nullptr) != 0 ||
        HvStartTimer(loop, &io->timerEvent, kHvLingerMs) != 0) {
        HvCloseNow(io);
        return 0;
    }
    io->closing = true;
    (void)event_del(&io->readEvent);
    return 0;
}

void hio_detach(hio_t* io) {
    if (io->base.loop == nullptr || io->closed) {
        return;
    }
    Unlink(io);
    io->base.loop = nullptr;
}

void hio_attach(hloop_t* loop, hio_t* io) {
    if (io->base.loop == nullptr && !io->closed) {
        Link(loop, io);
    }
}

void hio_set_read_timeout(hio_t* io, int timeoutMs) {
    io->readTimeoutMs = timeoutMs;
    // Not reading yet: hio_read starts the time-out.
    if (!io->assigned || io->closing || io->kind == HvKind::kListener) {
        return;
    }
    io->lastArrivalMs = kv::MonotonicMilliseconds();
    if (timeoutMs > 0) {
        (void)HvStartTimer(io->base.loop, &io->timerEvent, static_cast<uint32_t>(timeoutMs));
    } else {
        (void)event_del(&io->timerEvent);
    }
}

void hio_setcb_read(hio_t* io, hread_cb cb) {
    io->onRead = cb;
}

void hio_setcb_write(hio_t* io, hwrite_cb cb) {
    io->onWrite = cb;
}

void hio_setcb_close(hio_t* io, hclose_cb cb) {
    io->onClose = cb;
}

void hio_set_context(hio_t* io, void* ctx) {
    io->context = ctx;
}

void* hio_context(hio_t* io) {
    return io->context;
}

int hio_fd(hio_t* io) {
    return io->fd;
}

sockaddr* hio_localaddr(hio_t* io) {
    return &io->local.sa;
}

sockaddr* hio_peeraddr(hio_t* io) {
    return &io->peer.sa;
}
