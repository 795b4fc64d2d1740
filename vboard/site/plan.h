// Addresses of a site. Everything about a board follows from its number.
//
//     172.20.18.0/23   the service network: 172.20.18.1 access point and DHCP server, .2 laptop,
//                      172.20.18.10 to 172.20.19.253 the boards' wlan0, by DHCP
//     192.168.10.0/23  the wired network of the boards' eth0; 192.168.11.254 the laptop, if it is
//                      on this network too
#pragma once

#include <filesystem>
#include <string>

namespace vboard::site {

constexpr int kMaxBoards = 500;

// Bridges in the air, the namespace that all boards are plugged into.
constexpr char kAccessPoint[] = "ap0";
constexpr char kWired[] = "lan0";

// `number`: 1 to kMaxBoards. Board 1 has 192.168.10.2/23, board 2 the next, and so on.
std::string EthAddress(int number);
std::string EthMac(int number);
std::string WlanMac(int number);
std::filesystem::path BoardFolder(const std::filesystem::path& site, int number);

}  // namespace vboard::site
