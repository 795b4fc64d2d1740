// Discovery: requests; the reply, made from whatever the system says and read by kvtool; the
// cipher; the version file.
#include <net/if.h>

#include "common/kv_platform.h"
#include "mini/kv_des.h"
#include "mini/kv_mini_discovery.h"
#include "tests/fuzz/loop_door.h"
#include "tools/device/discovery_reply.h"

using namespace fuzz;

namespace {

const uint8_t* Bytes(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

std::string Cipher(const std::string& text, const std::string& key, DesDirection direction) {
    std::string out(text.size(), '\0');
    auto* const to = reinterpret_cast<uint8_t*>(out.data());
    if (direction == DES_ENCIPHER) {
        DES_Encrypt(to, Bytes(text), Bytes(key), text.size());
    }
    for (size_t at = 0; direction == DES_DECIPHER && at < text.size(); at += 8) {
        DES_Block(Bytes(text) + at, Bytes(key), to + at, DES_DECIPHER);
    }
    return out;
}

// kvtool may refuse only the netmask and the name server: the system may give any value for them.
void CheckReply(const std::string& reply) {
    Require(reply.size() == sizeof(kv::DiscoveryReply));
    kvtool::DiscoveryReply parsed;
    const std::string fault = kvtool::ParseDiscoveryReply(Bytes(reply), reply.size(), &parsed);
    Require(fault.empty() || fault == "bad netmask" || fault == "bad DNS server");
    Require(!fault.empty() || (parsed.account == "admin" && parsed.commandPort == 80));
    const std::string account = Cipher(reply.substr(512), "86028602", DES_DECIPHER);
    Require(account.compare(0, 16, std::string("admin\0\0\0", 8) + "86028602") == 0);
}

void Search(Input* in) {
    Put(kv::kRouteTable, "Iface\n" + in->Piece());
    Put(kv::kResolvConf, in->Piece());
    g_world.control = [in](unsigned long, void* argument) {
        (void)in->Text(6).copy(static_cast<ifreq*>(argument)->ifr_hwaddr.sa_data, 6);
        return 0;
    };
    (void)KV_MINI_DiscoverInit();
    (void)KV_MINI_DiscoverInit();
    while (g_server != nullptr && !in->Empty()) {
        const std::string start(kv::kDiscoveryMagic, sizeof(kv::kDiscoveryMagic));
        const std::string datagram = (in->Below(4) < 3 ? start : "") + in->Piece();
        bool replied = false;
        g_world.receive = [&](size_t) { return datagram; };
        g_world.send = [&](const std::string& reply) {
            replied = true;
            CheckReply(reply);
        };
        const int refusals = g_world.refusals;
        (void)Readable(0);
        Require(replied == (datagram.compare(0, 13, start + '\x0A') == 0) ||
                g_world.refusals > refusals);
    }
    (void)KV_MINI_DiscoverDeInit();
    (void)KV_MINI_DiscoverDeInit();
    CloseAll();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    Input& in = scope.in;
    const size_t door = in.Below(8);
    if (door == 6) {
        // Deciphering undoes enciphering.
        std::string key = in.Text(8);
        std::string text = in.Piece();
        key.resize(8);
        text.resize((text.size() + 7) / 8 * 8);
        Require(Cipher(Cipher(text, key, DES_ENCIPHER), key, DES_DECIPHER) == text);
        DES_Encrypt(nullptr, nullptr, nullptr, 8);
    } else if (door == 7) {
        Put(kv::kVersionFile, in.Rest());
        char version[65] = "unknown";
        (void)__KV_MINI_ReadVerIni(version);
        Require(memchr(version, '\0', sizeof(version)) != nullptr);
    } else {
        Search(&in);
    }
    return 0;
}
