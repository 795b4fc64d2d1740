#include "vboard/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>

#include "vboard/process.h"

namespace vboard {

namespace {

constexpr char kApAddress[] = "172.20.18.1/24";

std::string DhcpConfig() {
    return "interface ap0\n"
           "start 172.20.18.100\n"
           "end 172.20.18.200\n"
           "lease_file udhcpd.leases\n"
           "pidfile udhcpd.pid\n"
           "option subnet 255.255.255.0\n"
           "option router 172.20.18.1\n"
           "option dns 172.20.18.1\n"
           "option lease 3600\n";
}

void Ip(const std::string& batch) {
    if (Run({{"ip", "-batch", "-"}}, batch) != 0) {
        throw std::runtime_error("the bench network cannot be set up (see ip's message)");
    }
}

}  // namespace

std::string BenchAddress(const std::string& boardAddress) {
    const size_t slash = boardAddress.find('/');
    in_addr address{};
    int length = 0;
    if (slash != std::string::npos) {
        length = std::atoi(boardAddress.c_str() + slash + 1);
    }
    if (slash == std::string::npos || length < 8 || length > 30 ||
        inet_pton(AF_INET, boardAddress.substr(0, slash).c_str(), &address) != 1) {
        throw std::runtime_error("not an address: \"" + boardAddress +
                                 "\" (use ADDRESS/LEN, LEN from 8 to 30)");
    }
    const uint32_t board = ntohl(address.s_addr);
    const uint32_t network = board & ~((1U << (32 - length)) - 1);
    address.s_addr = htonl(board == network + 1 ? network + 2 : network + 1);
    char text[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, &address, text, sizeof(text));
    return text + boardAddress.substr(slash);
}

BenchNetwork::BenchNetwork(const NetworkConfig& config, const StateDir& state)
    : config_(config), state_(state) {}

BenchNetwork::~BenchNetwork() {
    if (dhcp_ > 0) {
        (void)kill(dhcp_, SIGKILL);
        (void)WaitStatus(dhcp_);
    }
}

void BenchNetwork::Create() {
    if (unshare(CLONE_NEWNET) != 0) {
        throw SysError("cannot make a network namespace");
    }
    // A bridge takes a port's address for its own unless it was given one.
    std::string batch = "link set lo up\n";
    const auto add = [&batch](const std::string& name, const char* mac, const std::string& where) {
        batch += "link add " + name + " address " + mac + " type bridge forward_delay 0\n";
        batch += "address add " + where + " brd + dev " + name + "\n";
        batch += "link set " + name + " up\n";
    };
    if (!config_.ethAddress.empty()) {
        add("lan0", "02:76:62:00:00:01", BenchAddress(config_.ethAddress));
    }
    if (config_.wifi) {
        add("ap0", "02:76:62:00:01:01", kApAddress);
    }
    // Tools that search by limited broadcast find the board without naming an interface.
    if (!config_.ethAddress.empty() || config_.wifi) {
        batch += std::string("route add broadcast 255.255.255.255 dev ") +
                 (config_.ethAddress.empty() ? "ap0" : "lan0") + "\n";
    }
    Ip(batch);
    if (config_.wifi) {
        StartDhcp();
    }
}

void BenchNetwork::Attach(pid_t init) {
    std::string batch;
    const auto plug = [&](const std::string& bench, const std::string& board, const char* mac,
                          bool up) {
        const std::string port = bench + "p";
        batch += "link add " + port + " type veth peer name " + board + " address " + mac +
                 " netns " + std::to_string(init) + "\n";
        batch += "link set " + port + " master " + bench + (up ? " up\n" : " down\n");
    };
    if (!config_.ethAddress.empty()) {
        plug("lan0", "eth0", "02:76:62:00:00:02", true);
    }
    if (config_.wifi) {
        plug("ap0", "wlan0", "02:76:62:00:01:02", carrier_);
    }
    if (!batch.empty()) {
        Ip(batch);
    }
}

void BenchNetwork::Detach() {
    // The kernel removes them by itself some time after the board's end, so both outcomes are
    // right; waiting for it is not needed this way.
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    Command command{{"ip", "-force", "-batch", "-"}};
    command.error = nowhere.Get();
    (void)Run(command, "link del lan0p\nlink del ap0p\n");
}

void BenchNetwork::RequireWifi() const {
    if (!config_.wifi) {
        throw std::runtime_error("this board has no Wi-Fi (it runs with --no-wifi)");
    }
}

void BenchNetwork::AccessPoint(const std::string& action) {
    RequireWifi();
    if (action == "up" || action == "down") {
        carrier_ = action == "up";
        Ip("link set ap0p " + action + "\n");
    } else if (action == "mute" || action == "unmute") {
        // With the bridge itself down the carrier stays and nothing answers.
        muted_ = action == "mute";
        Ip(std::string("link set ap0 ") + (muted_ ? "down\n" : "up\n"));
    } else if (action == "dhcp") {
        StartDhcp();
    } else if (action == "no-dhcp") {
        StopDhcp();
    } else {
        throw std::runtime_error("the access point knows no \"" + action + "\"");
    }
}

void BenchNetwork::WlanLink(pid_t init, bool up) {
    RequireWifi();
    const UniqueFd network(
        open(("/proc/" + std::to_string(init) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC));
    if (!network) {
        throw SysError("cannot reach the board's network");
    }
    Command command{{"ip", "link", "set", "wlan0", up ? "up" : "down"}};
    command.network = network.Get();
    if (Run(command) != 0) {
        throw std::runtime_error("wlan0 cannot be set (see ip's message on the runner)");
    }
}

void BenchNetwork::StartDhcp() {
    if (dhcp_ > 0) {
        return;
    }
    WriteText(state_.Path() / "udhcpd.conf", DhcpConfig());
    WriteText(state_.Path() / "udhcpd.leases", "");
    const UniqueFd log(open((state_.Path() / "udhcpd.log").c_str(),
                            O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    // -a: how long it looks, in milliseconds, whether an address is taken before it offers it.
    Command command{{"udhcpd", "-f", "-a", "20", "udhcpd.conf"}};
    command.directory = state_.Path();
    command.output = log.Get();
    command.error = log.Get();
    command.dieWithParent = true;
    command.newSession = true;
    dhcp_ = Start(command);
}

void BenchNetwork::StopDhcp() {
    if (dhcp_ > 0) {
        (void)kill(dhcp_, SIGKILL);
        (void)WaitStatus(dhcp_);
        dhcp_ = -1;
    }
}

std::string BenchNetwork::Describe() const {
    if (!config_.wifi) {
        return "no Wi-Fi";
    }
    return std::string("access point ") + (carrier_ ? "up" : "down") + (muted_ ? ", mute" : "") +
           (dhcp_ > 0 ? ", dhcp" : ", no dhcp");
}

}  // namespace vboard
