// The event loop, run on libevent: two loops with servers, connections and timers. The input says
// what callbacks and other threads do, and what each poll finds. libevent itself polls and reads
// the clock here. The fuzzer keeps track of what hloop.h promises.
#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <map>

#include "hv/hloop.h"
#include "hv/hsocket.h"
#include "tests/fuzz/world.h"

using namespace fuzz;

namespace {

constexpr size_t kLoops = 2;
constexpr size_t kNobody = kLoops;  // as actor: a thread that runs no loop
constexpr size_t kQueueMax = size_t{512} << 10;
constexpr int64_t kLingerMs = 60000;
constexpr int64_t kRetryMs = 200;
constexpr int64_t kNever = INT64_MAX;

enum class Kind { kListener, kStream, kDatagram };

// A descriptor, and what its user must see.
struct Link {
    int fd = -1;
    bool open = true;
    hio_t* io = nullptr;  // null before it is known and after its close callback
    Kind kind = Kind::kStream;
    size_t loop = 0;
    bool settled = false;  // its loop has begun to read
    bool reading = false;
    bool doomed = false;   // its user has closed it, or failed to write
    bool failed = false;   // to write: must go after the callback
    bool closing = false;  // only sends what is queued
    bool moving = false;   // to another loop, while closing
    // When the read time-out began, for example with an arrival. The loop may stop between
    // another thread's request and the mark that tells the fuzzer of it, so there are two limits.
    int64_t earliest = 0;
    int64_t latest = 0;
    int64_t timeout = 0;
    int64_t linger = 0;
    int64_t retry = 0;    // of an accept that failed
    size_t accepted = 0;  // bytes given to hio_write
    size_t sent = 0;
    size_t queueMax = kQueueMax;

    size_t Queued() const { return accepted - sent; }
    bool Is(size_t on) const { return io != nullptr && loop == on; }
    bool Lost() const { return kind == Kind::kStream && g_world.ended.count(fd) > 0; }
    bool Silent() const { return timeout > 0 && g_nowMs >= earliest + timeout; }
    // The loop may have begun to close it since the last poll.
    bool MayBeClosing() const { return closing || doomed || Lost() || Silent(); }
    void Restart() { earliest = latest = g_nowMs; }
    int64_t Deadline() const {
        return closing                  ? linger
               : retry > 0              ? retry
               : settled && timeout > 0 ? latest + timeout
                                        : kNever;
    }
    void BeginClosing() {
        if (!closing && io != nullptr) {
            Require(Queued() > 0);
            closing = true;
            linger = g_nowMs + kLingerMs;
        }
    }
};

enum class Mark { kSteps, kBeforeRead, kAfterRead, kAfterClose };

// An event. The marks are posted around the requests of another thread to read or close a link.
struct Posted {
    size_t loop;
    Mark mark;
    Link* link;
};

struct Timer {
    size_t loop;
    uint32_t period;
    uint32_t left;
    int64_t due;
};

// All that one input makes.
struct State {
    std::array<hloop_t*, kLoops> loops{};
    std::array<bool, kLoops> freeing{};
    std::array<std::deque<Posted*>, kLoops> queues;
    bool autoFree = false;  // the second loop
    size_t running = kNobody;
    std::deque<Link> links;
    std::deque<Posted> posted;
    std::deque<Timer> timers;
    std::string arrived;
    size_t leaving = 0;  // bytes queued for links whose close callbacks run
    int depth = 0;
    int pollsAtEnd = 0;
};
State* g_state;
size_t g_actor = kNobody;

// What connections send: a pattern that shows each byte's place.
const char* Pattern(size_t at) {
    constexpr size_t kPeriod = 251;
    static const std::string pattern = [] {
        std::string text(kPeriod + (2U << 20), '\0');
        for (size_t i = 0; i < text.size(); ++i) {
            text[i] = static_cast<char>(i % kPeriod);
        }
        return text;
    }();
    return pattern.data() + at % kPeriod;
}

Link& LinkOf(int fd) {
    return g_state->links.at(static_cast<size_t>(fd - kFd));
}

int OpenDescriptor() {
    g_state->links.emplace_back();
    g_state->links.back().fd = kFd + static_cast<int>(g_state->links.size()) - 1;
    return g_state->links.back().fd;
}

size_t AllQueued() {
    size_t all = g_state->leaving;
    for (const Link& link : g_state->links) {
        all += link.io != nullptr ? link.Queued() : 0;
    }
    return all;
}

void Steps(size_t count);

void OnPosted(hevent_t* ev) {
    auto* const posted = static_cast<Posted*>(hevent_userdata(ev));
    std::deque<Posted*>& queue = g_state->queues.at(posted->loop);
    Require(g_actor == posted->loop && hevent_loop(ev) == g_state->loops.at(posted->loop));
    Require(!queue.empty() && queue.front() == posted);
    queue.pop_front();
    Link* const link = posted->link;
    switch (posted->mark) {
        case Mark::kSteps:
            return Steps(g_world.in->Below(4));
        case Mark::kBeforeRead:
            link->reading = true;
            return link->Restart();
        case Mark::kAfterRead:
            link->settled = true;
            link->latest = g_nowMs;
            return link->moving ? link->BeginClosing() : (void)0;
        default:
            return link->BeginClosing();
    }
}

void Post(size_t loop, Mark mark, Link* link) {
    g_state->posted.push_back({loop, mark, link});
    g_state->queues.at(loop).push_back(&g_state->posted.back());
    hevent_t event{};
    event.cb = OnPosted;
    event.userdata = &g_state->posted.back();
    hloop_post_event(g_state->loops.at(loop), &event);
}

void Read(Link* link) {
    const bool outside = g_actor != link->loop;
    if (outside) {
        Post(link->loop, Mark::kBeforeRead, link);
    }
    const int result = hio_read(link->io);
    Require(result == 0 || link->MayBeClosing());
    if (result != 0) {
        return link->BeginClosing();
    }
    if (outside) {
        return Post(link->loop, Mark::kAfterRead, link);
    }
    if (!link->reading) {
        link->Restart();
    }
    link->settled = link->reading = true;
}

void HandOver(Link* link);

void Close(Link* link) {
    hio_t* const io = link->io;
    const bool queued = link->Queued() > 0 && !link->failed;
    link->doomed = true;
    if (g_actor != link->loop) {
        Require(hio_close(io) == 0);
        return Post(link->loop, Mark::kAfterClose, link);
    }
    Require(hio_close(io) == 0 && hio_close(io) == 0 && hio_write(io, "", 1) < 0);
    hio_set_read_timeout(io, 1);  // too late
    Require((link->io != nullptr) == queued);
    link->BeginClosing();
    if (queued && g_world.in->Below(4) == 3) {
        HandOver(link);
    }
}

void Write(Link* link, size_t size) {
    const size_t before = link->sent;
    const size_t own = link->Queued();
    const size_t all = AllQueued();
    const int refusals = g_world.refusals;
    const int result = hio_write(link->io, Pattern(link->accepted), size);
    if (link->kind == Kind::kDatagram) {
        return Require(result == static_cast<int>(size) || result == -1);
    }
    const size_t now = link->sent - before;
    const size_t rest = size - now;
    const bool fits = own + rest <= link->queueMax && all + rest <= kQueueMax;
    if (result < 0 && errno == EBADF) {
        Require(link->failed || link->MayBeClosing());
    } else if (result < 0) {
        Require(errno == EPIPE ? link->Lost() : errno == ENOBUFS && !fits);
        // What was queued before may still go out.
        link->failed = link->doomed = true;
        link->accepted += now;
    } else {
        Require(!link->failed && !link->closing && static_cast<size_t>(result) == now);
        Require(fits || rest == 0);
        Require(rest == 0 || own > 0 || g_world.refusals > refusals);
        link->accepted += size;
    }
}

void OnRead(hio_t* io, void* data, int size) {
    auto* const link = static_cast<Link*>(hio_context(io));
    Require(link->io == io && g_actor == link->loop && link->reading && !link->closing);
    Require(std::string(static_cast<char*>(data), static_cast<size_t>(size)) == g_state->arrived);
    Require(static_cast<char*>(data)[size] == '\0');
    Steps(g_world.in->Below(4));
}

void OnWrite(hio_t* io, const void*, int) {
    auto* const link = static_cast<Link*>(hio_context(io));
    Require(link->io == io && g_actor == link->loop && !link->closing);
    Steps(g_world.in->Below(4));
}

void OnClose(hio_t* io) {
    auto* const link = static_cast<Link*>(hio_context(io));
    const bool freeing = g_state->freeing.at(link->loop);
    Require(link->io == io && link->open && hio_fd(io) == link->fd);
    Require(freeing || link->doomed || link->Lost() || link->Silent());
    const int64_t patience =
        link->closing ? link->linger : link->earliest + link->timeout + kLingerMs;
    Require(freeing || link->Queued() == 0 || link->failed || link->Lost() || g_nowMs >= patience);
    link->io = nullptr;
    g_state->leaving += link->Queued();
    Steps(g_world.in->Below(2));
    g_state->leaving -= link->Queued();
}

Link* Adopt(hio_t* io, Kind kind, size_t loop) {
    Link& link = LinkOf(hio_fd(io));
    link.io = io;
    link.kind = kind;
    link.loop = loop;
    hio_set_context(io, &link);
    hio_setcb_read(io, OnRead);
    hio_setcb_write(io, OnWrite);
    hio_setcb_close(io, OnClose);
    return &link;
}

void HandOver(Link* link) {
    hio_t* const io = link->io;
    link->moving = link->MayBeClosing() && hio_read(io) != 0;
    link->closing = false;
    hio_detach(io);
    link->settled = link->reading = false;
    Require(hio_read(io) < 0 && errno == ENOTCONN && hio_write(io, "", 1) < 0);
    const size_t to = g_world.in->Below(kLoops + 1);
    if (to == kLoops || g_state->loops.at(to) == nullptr) {
        link->doomed = true;
        link->accepted = link->sent;
        Require(hio_close(io) == 0 && link->io == nullptr);
        return;
    }
    hio_attach(g_state->loops.at(to), io);
    link->loop = to;
    if (g_world.in->Below(2) == 1) {
        Write(link, g_world.in->Short());
    }
    Read(link);
    if (link->moving && g_actor == to) {
        link->settled = true;
    }
}

void OnAccept(hio_t* io) {
    Link* const link = Adopt(io, Kind::kStream, g_actor);
    char text[64];
    (void)sockaddr_str(reinterpret_cast<sockaddr_u*>(hio_peeraddr(io)), text, sizeof(text));
    Require(strcmp(text, "192.0.2.7:1234") == 0 || strcmp(text, "?") == 0);
    const size_t what = g_world.in->Below(8);
    what == 0 ? Close(link) : what == 1 ? HandOver(link) : Read(link);
}

void Open(size_t loop) {
    hloop_t* const on = g_state->loops.at(loop);
    constexpr const char* kHosts[] = {nullptr, "", "127.0.0.1", "localhost"};
    const size_t host = g_world.in->Below(std::size(kHosts));
    const int port = g_world.in->Below(8) == 7 ? static_cast<int>(g_world.in->Number(4)) : 80;
    const bool valid = on != nullptr && host < 3 && port >= 0 && port <= 65535;
    const bool stream = g_world.in->Below(4) != 3;
    const int refusals = g_world.refusals;
    hio_t* const io = stream ? hloop_create_tcp_server(on, kHosts[host], port, OnAccept)
                             : hloop_create_udp_server(on, kHosts[host], port);
    if (io == nullptr) {
        return Require(valid ? g_world.refusals > refusals : errno == EINVAL);
    }
    Require(valid);
    Read(Adopt(io, stream ? Kind::kListener : Kind::kDatagram, loop));
}

void OnTimer(htimer_t* handle) {
    auto* const timer = static_cast<Timer*>(hevent_userdata(handle));
    Require(g_actor == timer->loop && timer->left > 0 && g_nowMs >= timer->due);
    timer->left -= timer->left != INFINITE ? 1 : 0;
    // One that is more than a period late does not catch up.
    timer->due = (timer->due + timer->period < g_nowMs ? g_nowMs : timer->due) + timer->period;
    Steps(g_world.in->Below(4));
}

void AddTimer(size_t loop) {
    const uint32_t period = g_world.in->Short();
    const uint32_t count = g_world.in->Byte();
    const uint32_t repeat = count == 255 ? INFINITE : count;
    htimer_t* const handle = htimer_add(g_state->loops.at(loop), OnTimer, period, repeat);
    Require((handle != nullptr) == (period > 0 && repeat > 0));
    if (handle != nullptr) {
        g_state->timers.push_back({loop, period, repeat, g_nowMs + period});
        hevent_set_userdata(handle, &g_state->timers.back());
    }
}

void Stop(size_t loop) {
    g_state->freeing.at(loop) = loop == 1 && g_state->autoFree;
    Require(hloop_stop(g_state->loops.at(loop)) == 0);
}

// What the user of a link does on the thread of its loop.
void Use(Link* link, size_t what) {
    const bool stream = link->kind == Kind::kStream;
    const bool listener = link->kind == Kind::kListener;
    if (!listener && link->MayBeClosing() && what != 6) {
        Read(link);
        what = link->closing ? SIZE_MAX : what;
    }
    switch (what) {
        case 0:
        case 1:
            return listener
                       ? (void)0
                       : Write(link, stream ? (what == 0 ? 16 : 1) * g_world.in->Short() : 100);
        case 2:
            return Close(link);
        case 3:
            link->reading = listener && link->reading;
            return link->reading ? (void)0 : (void)hio_read_stop(link->io);
        case 4:
            return link->retry > 0 ? (void)0 : Read(link);
        case 5:
            if (!listener) {
                link->timeout = g_world.in->Short() - 1;
                link->Restart();
                hio_set_read_timeout(link->io, static_cast<int>(link->timeout));
            }
            return;
        case 6:
            return stream && !link->doomed ? HandOver(link) : (void)0;
        case 7:
            link->queueMax = size_t{g_world.in->Short()} * 16;
            return hio_set_max_write_bufsize(link->io, static_cast<uint32_t>(link->queueMax));
        case 8:
            return hio_setcb_read(link->io, g_world.in->Below(2) == 0 ? OnRead : nullptr);
        case 9:
            return hio_setcb_write(link->io, g_world.in->Below(2) == 0 ? OnWrite : nullptr);
        default:
            return;
    }
}

void Step() {
    Input& in = *g_world.in;
    const size_t loop = in.Below(kLoops);
    const size_t what = in.Below(16);
    if (what >= 6 && !g_state->links.empty()) {
        Link& link = g_state->links.at(in.Below(g_state->links.size()));
        if (link.io != nullptr && g_actor == link.loop && link.settled && !link.closing) {
            return Use(&link, what - 6);
        }
        const bool known = link.io != nullptr && !link.doomed && g_actor != link.loop;
        return known && what == 6 ? Close(&link) : (void)0;
    }
    if (g_state->loops.at(loop) == nullptr) {
        return Require(hloop_run(nullptr) < 0 && hloop_stop(nullptr) < 0);
    }
    switch (what) {
        case 0:
            return Post(loop, Mark::kSteps, nullptr);
        case 1:
            return g_actor == loop || g_state->running != loop ? AddTimer(loop) : (void)0;
        case 2:
            return g_state->running < kLoops ? Stop(g_state->running) : (void)0;
        case 3:
            return Require(g_actor == kNobody ||
                           (hloop_run(g_state->loops.at(g_actor)) < 0 && errno == EBUSY));
        default:
            return Open(loop);
    }
}

void Steps(size_t count) {
    for (++g_state->depth; count > 0 && !g_world.in->Empty() && g_state->depth < 5; --count) {
        if (g_actor == kNobody || !g_state->freeing.at(g_actor)) {
            Step();
        }
    }
    --g_state->depth;
}

// Nothing is left to do on the running loop, and nothing arrives for `ms` (negative: for ever).
void Idle(const pollfd* entries, nfds_t count, int ms) {
    std::map<int, int> events;
    for (nfds_t i = 0; i < count; ++i) {
        events[entries[i].fd] = entries[i].events;
    }
    int64_t deadline = kNever;
    for (Link& link : g_state->links) {
        if (!link.Is(g_state->running)) {
            continue;
        }
        Require(!link.failed && link.settled);
        if (link.Lost() || (!link.closing && link.Silent())) {
            link.BeginClosing();
        }
        link.retry = link.retry > g_nowMs ? link.retry : 0;
        const bool reads = link.reading && !link.closing && link.retry == 0;
        Require(events[link.fd] == (reads ? POLLIN : 0) + (link.Queued() > 0 ? POLLOUT : 0));
        deadline = std::min(deadline, link.Deadline());
    }
    for (const Timer& timer : g_state->timers) {
        if (timer.loop == g_state->running && timer.left > 0) {
            deadline = std::min(deadline, timer.due);
        }
    }
    Require(ms < 0 ? deadline == kNever : g_nowMs + ms <= deadline);
}

void RequireAccounts() {
    for (size_t i = 0; i < kLoops; ++i) {
        const auto isOn = [i](const Link& link) { return link.Is(i); };
        const auto count = std::count_if(g_state->links.begin(), g_state->links.end(), isOn);
        hloop_t* const loop = g_state->loops.at(i);
        Require(loop == nullptr || hloop_nios(loop) == static_cast<size_t>(count));
    }
    for (const Link& link : g_state->links) {
        Require(link.io == nullptr || hio_write_bufsize(link.io) == link.Queued());
    }
}

int Poll(pollfd* entries, nfds_t count, int ms) {
    Input& in = *g_world.in;
    RequireAccounts();
    g_actor = kNobody;
    Steps(in.Below(4));
    if (in.Empty()) {
        Require(++g_state->pollsAtEnd < 10000);
        Stop(g_state->running);
    }
    g_actor = g_state->running;
    int ready = 0;
    for (pollfd* entry = entries; entry < entries + count; ++entry) {
        entry->revents = 0;
        if (entry->fd < kFd) {
            (void)syscall(SYS_poll, entry, 1, 0);
        } else {
            Require(LinkOf(entry->fd).open);
            const unsigned found = in.Byte() % 16U;
            const unsigned some = (found % 2 * POLLIN) | (found / 2 % 2 * POLLOUT);
            const unsigned all = found == 15 ? POLLHUP : entry->events & some;
            entry->revents = static_cast<short>(all);
        }
        ready += entry->revents != 0 ? 1 : 0;
    }
    if (ready == 0 && ms != 0) {
        Idle(entries, count, ms);
        if (ms < 0 || in.Below(8) == 7) {
            g_nowMs += in.Short() % (ms < 0 ? 100000 : ms);
            errno = EINTR;
            return -1;
        }
        g_nowMs += ms;
    }
    return ready;
}

int Accept(int fd, sockaddr* address) {
    constexpr int kErrors[] = {EAGAIN, ECONNABORTED, EINTR, EMFILE};
    Link& listener = LinkOf(fd);
    Require(listener.kind == Kind::kListener && g_nowMs >= listener.retry);
    listener.retry = 0;
    if (Refuses(8)) {
        errno = kErrors[g_world.in->Below(std::size(kErrors))];
        listener.retry = errno == EMFILE ? g_nowMs + kRetryMs : 0;
        return -1;
    }
    auto* const peer = reinterpret_cast<sockaddr_in*>(address);
    *peer = {AF_INET, htons(1234), {htonl(0xC0000207)}, {}};
    peer->sin_family = Refuses(16) ? AF_INET6 : AF_INET;
    return OpenDescriptor();
}

int CloseDescriptor(int fd) {
    Require(LinkOf(fd).open);
    LinkOf(fd).open = false;
    return 0;
}

void Run(size_t loop) {
    if (g_state->loops.at(loop) == nullptr) {
        return;
    }
    g_state->running = g_actor = loop;
    Require(hloop_run(g_state->loops.at(loop)) == 0);
    g_state->running = g_actor = kNobody;
    if (loop == 1 && g_state->autoFree) {
        g_state->loops.at(loop) = nullptr;
    }
}

}  // namespace

// libevent calls these, because the program's symbols come before those of the C library. It
// derives the order in which it looks at descriptors from the last two.
extern "C" int poll(pollfd* entries, nfds_t count, int ms) {
    return IsInside() ? Poll(entries, count, ms)
                      : static_cast<int>(syscall(SYS_poll, entries, count, ms));
}
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (!IsInside() || clock != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    }
    *now = {g_nowMs / 1000, g_nowMs % 1000 * 1000000};
    return 0;
}
extern "C" int gettimeofday(timeval* now, void*) noexcept {
    const bool inside = IsInside();
    *now = {};
    return inside ? 0 : static_cast<int>(syscall(SYS_gettimeofday, now, nullptr));
}
extern "C" pid_t getpid() noexcept {
    return IsInside() ? 1 : static_cast<pid_t>(syscall(SYS_getpid));
}
extern "C" {
WRAP(pthread_t, pthread_self, (), (), g_actor == kNobody ? 1 : __real_pthread_self())
WRAP(int, eventfd, (unsigned a, int b), (a, b), Refuses(64) ? -1 : __real_eventfd(a, b))
WRAP(int, close, (int a), (a), a < kFd ? __real_close(a) : CloseDescriptor(a))
WRAP(int, accept4, (int a, sockaddr* b, socklen_t* c, int d), (a, b, c, d), Accept(a, b))
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    Input& in = scope.in;
    State state;
    g_state = &state;
    g_nowMs = 1000000;
    g_world.poison = true;
    g_world.open = OpenDescriptor;
    g_world.receive = [&](size_t room) {
        Link& link = LinkOf(g_world.fd);
        size_t got = in.Below(4) == 3 ? in.Short() % (room + 1) : in.Byte() % 32;
        got = std::max<size_t>(got, link.kind == Kind::kDatagram ? 1 : 0);
        if (got > 0) {
            link.Restart();
        }
        return state.arrived = std::string(Pattern(got), got);
    };
    g_world.send = [](const std::string& bytes) {
        Link& link = LinkOf(g_world.fd);
        Require(link.open);
        if (link.kind == Kind::kStream) {
            Require(bytes.compare(0, bytes.size(), Pattern(link.sent), bytes.size()) == 0);
            link.sent += bytes.size();
        }
    };
    state.autoFree = in.Below(4) == 3;
    state.loops = {hloop_new(0), hloop_new(state.autoFree ? HLOOP_FLAG_AUTO_FREE : 0)};
    Open(0);
    for (int rounds = 0; rounds < 8 && !in.Empty(); ++rounds) {
        Steps(in.Below(4));
        Run(in.Below(kLoops));
    }
    for (size_t i = 0; i < kLoops; ++i) {
        g_actor = i;
        state.freeing.at(i) = true;
        hloop_free(&state.loops.at(i));
        Require(state.loops.at(i) == nullptr);
    }
    g_actor = kNobody;
    for (const Link& link : state.links) {
        Require(!link.open && link.io == nullptr);
    }
    g_state = nullptr;
    return 0;
}
