#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "net/kv_net.h"
#include "net/kv_net_internal.h"

namespace {

constexpr char kNameServer[] = "nameserver";
constexpr char kSecondServer[] = "8.8.8.8";
constexpr size_t kFileTextSize = 128;

void FormatServers(const char* dns1, const char* dns2, char (&text)[kFileTextSize]) {
    memset(text, 0, sizeof(text));
    (void)snprintf(text, sizeof(text), "nameserver %s\nnameserver %s\n", dns1, dns2);
}

int WriteResolvConf(const char* function, const char* text) {
    const UniqueFile file(fopen(kv::kResolvConf, "we"));
    if (!file) {
        (void)printf("%s: file \"%s\" opened for writing error!\n", function, kv::kResolvConf);
        return -1;
    }
    // The text fits the stream's buffer, so a full file system shows only at the flush.
    if (fwrite(text, 1, strlen(text), file.Get()) == 0 || fflush(file.Get()) != 0) {
        perror("fwrite");
        return -1;
    }
    return 0;
}

// Copies the text after "nameserver " up to the end of the line.
void CopyServer(const char* line, char* out) {
    const char* tag = strstr(line, kNameServer);
    const char* end = strchr(line, '\n');
    if (tag == nullptr || end == nullptr) {
        return;
    }
    const char* server = tag + sizeof(kNameServer);
    if (server < end) {
        // Kept: no terminating NUL. Callers pass zeroed buffers.
        memcpy(out, server, static_cast<size_t>(end - server));
    }
}

}  // namespace

int KV_NET_GetDNS(char* out) {
    if (out == nullptr) {
        return -1;
    }
    const kv::TextFile file(kv::kResolvConf);
    if (file) {
        // Kept: a file that begins with anything else gives no server.
        static_assert(kv::kNetDnsSize == 32, "the width below is one less");
        (void)fscanf(file.Get(), "nameserver %31s\n", out);
    }
    return 0;
}

int KV_NET_GetDNS_ex(char* out1, char* out2) {
    if (out1 == nullptr || out2 == nullptr) {
        return -1;
    }
    const kv::TextFile file(kv::kResolvConf);
    if (!file) {
        return -1;
    }
    char line[kv::kNetDnsLineSize];
    char* const outs[] = {out1, out2};
    for (char* out : outs) {
        if (kv::ReadLine(file.Get(), line)) {
            CopyServer(line, out);
        }
    }
    return 0;
}

int KV_NET_SetDNS(const char* dns1) {
    if (dns1 == nullptr) {
        return -1;
    }
    char text[kFileTextSize];
    FormatServers(dns1, kSecondServer, text);
    return WriteResolvConf(__func__, text);
}

int KV_NET_SetDNS_ex(const char* dns1, const char* dns2) {
    if (dns1 == nullptr || dns2 == nullptr) {
        return -1;
    }
    char text[kFileTextSize];
    FormatServers(dns1, dns2, text);
    (void)printf("%s: acBuf %s\n", __func__, text);
    (void)printf("%s: dns1 %s, dns2 %s\n", __func__, dns1, dns2);
    return WriteResolvConf(__func__, text);
}
