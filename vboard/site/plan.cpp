#include "vboard/site/plan.h"

#include <cstdio>

namespace vboard::site {

namespace {

std::string Mac(int kind, int number) {
    char text[18];
    (void)snprintf(text, sizeof(text), "02:76:62:%02x:%02x:%02x", static_cast<unsigned>(kind),
                   static_cast<unsigned>(number) / 256 % 256, static_cast<unsigned>(number) % 256);
    return text;
}

}  // namespace

std::string EthAddress(int number) {
    const int host = number + 1;
    return "192.168." + std::to_string(10 + host / 256) + "." + std::to_string(host % 256) + "/23";
}

std::string EthMac(int number) {
    return Mac(1, number);
}

std::string WlanMac(int number) {
    return Mac(2, number);
}

std::filesystem::path BoardFolder(const std::filesystem::path& site, int number) {
    return site / "boards" / std::to_string(number);
}

}  // namespace vboard::site
