// set_clock SECONDS: sets the board's clock, in seconds since 1970, also to times after 2038.
// Debian's busybox for armhf has 32-bit times and cannot.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

static_assert(sizeof(time_t) == 8, "build it with 64-bit times");

int main(int argc, char** argv) {
    char* end = nullptr;
    const timespec now = {argc == 2 ? strtoll(argv[1], &end, 10) : 0, 0};
    if (end == nullptr || *end != '\0') {
        (void)fprintf(stderr, "usage: set_clock SECONDS\n");
        return 2;
    }
    if (clock_settime(CLOCK_REALTIME, &now) != 0) {
        perror("set_clock");
        return 1;
    }
    return 0;
}
