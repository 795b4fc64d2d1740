#include "tests/support/recorded_io.h"

#include <ctime>

namespace kv_test {

namespace {

Connection* Of(hio_t* io) {
    return reinterpret_cast<Connection*>(io);
}

}  // namespace

std::atomic<long> g_sleptMs{0};

extern "C" {
int __wrap_nanosleep(const timespec* time, timespec* left) {
    (void)left;
    g_sleptMs += time->tv_sec * 1000 + time->tv_nsec / 1000000;
    return 0;
}
int __wrap_hio_write(hio_t* io, const void* buf, size_t len) {
    Of(io)->commandsAtReply = ReadFile(kCommandLog);
    Of(io)->replies.emplace_back(static_cast<const char*>(buf), len);
    return static_cast<int>(len);
}
int __wrap_hio_read(hio_t* io) {
    return ++Of(io)->reads;
}
void __wrap_hio_setcb_read(hio_t* io, hread_cb cb) {
    Of(io)->onRead = cb;
}
void __wrap_hio_set_read_timeout(hio_t* io, int timeoutMs) {
    Of(io)->timeouts.push_back(timeoutMs);
}
void* __wrap_hio_context(hio_t* io) {
    return &Of(io)->session;
}
}

}  // namespace kv_test
