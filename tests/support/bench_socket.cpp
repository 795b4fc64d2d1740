// bench_socket FD tcp|udp|broadcast|icmp HOST PORT: opens a socket in the network where it runs
// (the bench) and passes it over the Unix socket FD. The test can then use it as if it ran on the
// bench. "tcp" and "udp" are connected to HOST. "broadcast" is not, because answers come from other
// addresses. "icmp" receives all packets of that protocol.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

bool Send(int channel, int descriptor) {
    char byte = 's';
    struct iovec data = {&byte, 1};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    struct cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    return sendmsg(channel, &message, 0) == 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const bool tcp = strcmp(argv[2], "tcp") == 0;
    const bool icmp = strcmp(argv[2], "icmp") == 0;
    const int descriptor = icmp ? socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)
                                : socket(AF_INET, tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(argv[4])));
    if (descriptor < 0 || inet_pton(AF_INET, argv[3], &address.sin_addr) != 1) {
        return 3;
    }
    const int on = 1;
    (void)setsockopt(descriptor, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    // Each send of a test becomes one segment.
    (void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if ((tcp || strcmp(argv[2], "udp") == 0) &&
        connect(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) {
        return 4;
    }
    return Send(atoi(argv[1]), descriptor) ? 0 : 5;
}
