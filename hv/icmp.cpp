#include "hv/icmp.h"

#include <arpa/inet.h>
#include <oping.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr double kAnswerSeconds = 1.0;

int PingAddress(pingobj_t* pinger, const char* host, int cnt) {
    int family = AF_INET;
    double timeout = kAnswerSeconds;
    if (ping_setopt(pinger, PING_OPT_AF, &family) != 0 ||
        ping_setopt(pinger, PING_OPT_TIMEOUT, &timeout) != 0 || ping_host_add(pinger, host) != 0) {
        return -1;
    }
    int answers = 0;
    for (int i = 0; i < cnt; ++i) {
        const int answered = ping_send(pinger);
        if (answered < 0) {
            return answers > 0 ? answers : -1;
        }
        answers += answered;
        // Waiting for a missing answer has already taken the second.
        if (answered > 0 && i + 1 < cnt) {
            (void)sleep(1);
        }
    }
    return answers;
}

}  // namespace

int ping(const char* host, int cnt) {
    // Numeric addresses only: the library would resolve a name, which blocks much longer than an
    // echo.
    in_addr address{};
    if (host == nullptr || inet_pton(AF_INET, host, &address) != 1) {
        return -1;
    }
    pingobj_t* pinger = ping_construct();
    if (pinger == nullptr) {
        return -1;
    }
    const int answers = PingAddress(pinger, host, cnt);
    ping_destroy(pinger);
    return answers;
}
