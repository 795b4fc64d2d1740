// Shared by the files of this module.
#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/kv_raii.h"
#include "net/kv_net.h"

namespace kv {

// Writes four bytes in network order as a dotted quad. In some C libraries inet_ntoa has one buffer
// for all threads, and two threads of this program read addresses.
inline void FormatQuad(const uint8_t* bytes, char* out) {
    (void)snprintf(out, kNetAddressSize, "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
}

// Fills an AF_INET socket address. Returns false and writes nothing if `text` is not an address.
inline bool ParseAddress(const char* text, struct sockaddr* address) {
    struct sockaddr_in inet {};
    inet.sin_family = AF_INET;
    if (inet_aton(text, &inet.sin_addr) == 0) {
        return false;
    }
    memcpy(address, &inet, sizeof(inet));
    return true;
}

// Copies a name, cut if too long, into a zeroed field of the size that the kernel reads.
inline void CopyInterfaceName(char (&field)[IFNAMSIZ], const char* ifname) {
    (void)memccpy(field, ifname, 0, IFNAMSIZ - 1);
}

// A small file open for reading. Its own stream buffer saves the allocation and the query for a
// buffer size, and is large enough to get the device's tables in one read.
class TextFile {
  public:
    explicit TextFile(const char* path) : file_(fopen(path, "re")) {
        if (file_) {
            (void)setvbuf(file_.Get(), buffer_, _IOFBF, sizeof(buffer_));
        }
    }
    FILE* Get() const { return file_.Get(); }
    explicit operator bool() const { return static_cast<bool>(file_); }

  private:
    char buffer_[2048];  // Outlives the stream, because members are destroyed in reverse order.
    UniqueFile file_;
};

// Reads the next line into `line` and fills the rest with zeros. The excess of a long line is
// dropped, not returned as another line. Returns false at the end of the file.
template <size_t size>
bool ReadLine(FILE* file, char (&line)[size]) {
    memset(line, 0, size);
    if (fgets(line, static_cast<int>(size), file) == nullptr) {
        return false;
    }
    if (memchr(line, '\n', size) == nullptr) {
        int c = 0;
        do {
            c = getc(file);
        } while (c != '\n' && c != EOF);
    }
    return true;
}

}  // namespace kv
