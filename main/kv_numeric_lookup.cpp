// Address look-up of the static program. It handles only numeric IPv4 addresses; the ping library
// gets no others.
//
// libevent and liboping call the C library's look-up. glibc's loads modules at run time, and the
// device's modules may belong to another version of glibc. It would also take up an eighth of the
// program.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

extern "C" {

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** result) {
    struct Entry {
        addrinfo info;
        sockaddr_in address;
    };
    in_addr numeric{};
    if (name == nullptr || service != nullptr || inet_pton(AF_INET, name, &numeric) != 1) {
        return EAI_NONAME;
    }
    auto* entry = static_cast<Entry*>(calloc(1, sizeof(Entry)));
    if (entry == nullptr) {
        return EAI_MEMORY;
    }
    entry->address.sin_family = AF_INET;
    entry->address.sin_addr = numeric;
    entry->info.ai_family = AF_INET;
    entry->info.ai_socktype = hints != nullptr ? hints->ai_socktype : 0;
    entry->info.ai_protocol = hints != nullptr ? hints->ai_protocol : 0;
    entry->info.ai_addrlen = sizeof(entry->address);
    entry->info.ai_addr = reinterpret_cast<sockaddr*>(&entry->address);
    *result = &entry->info;
    return 0;
}

void freeaddrinfo(addrinfo* entry) {
    free(entry);
}

const char* gai_strerror(int /*error*/) {
    return "not a numeric address";
}

// Needed only for linking: nothing in the program calls these.

int getnameinfo(const sockaddr* /*address*/, socklen_t /*length*/, char* /*host*/,
                socklen_t /*hostSize*/, char* /*service*/, socklen_t /*serviceSize*/,
                int /*flags*/) {
    return EAI_FAIL;
}

protoent* getprotobynumber(int /*number*/) {
    return nullptr;
}

servent* getservbyname(const char* /*name*/, const char* /*protocol*/) {
    return nullptr;
}

unsigned if_nametoindex(const char* /*name*/) {
    return 0;
}

int getifaddrs(ifaddrs** /*list*/) {
    errno = ENOSYS;
    return -1;
}

void freeifaddrs(ifaddrs* /*list*/) {}

}  // extern "C"
