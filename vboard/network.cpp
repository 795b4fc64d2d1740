#include "vboard/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <sched.h>
#include <signal.h>

#include <thread>

#include "vboard/preflight.h"
#include "vboard/process.h"

namespace vboard {

namespace {

constexpr char kApAddress[] = "172.20.18.1/24";
constexpr char kDhcpConfig[] =
    "interface ap0\n"
    "start 172.20.18.100\n"
    "end 172.20.18.200\n"
    "option subnet 255.255.255.0\n"
    "option router 172.20.18.1\n"
    "option dns 172.20.18.1\n"
    "option lease 3600\n";

std::string AddressHere(const std::string& interface) {
    ifaddrs* list = nullptr;
    std::string found;
    if (getifaddrs(&list) != 0) {
        return found;
    }
    for (const ifaddrs* entry = list; entry != nullptr && found.empty(); entry = entry->ifa_next) {
        if (entry->ifa_name == interface && entry->ifa_addr != nullptr &&
            entry->ifa_addr->sa_family == AF_INET) {
            char text[INET_ADDRSTRLEN] = "";
            (void)inet_ntop(AF_INET,
                            &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, text,
                            sizeof(text));
            found = text;
        }
    }
    freeifaddrs(list);
    return found;
}

}  // namespace

void EnterNewNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        throw SysError("cannot make a network namespace");
    }
}

void Ip(const std::string& batch, int network) {
    Command command{{"ip", "-batch", "-"}};
    command.network = network;
    if (Run(command, batch) != 0) {
        throw std::runtime_error("the bench network cannot be set up (see ip's message)");
    }
}

void IpQuietly(const std::string& batch, int network) {
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    Command command{{"ip", "-force", "-batch", "-"}};
    command.network = network;
    command.error = nowhere.Get();
    (void)Run(command, batch);
}

std::string AddBridge(const std::string& name, const std::string& mac, const std::string& address) {
    // Without a MAC address of its own, a bridge takes that of a port.
    return "link add " + name + " address " + mac + " type bridge forward_delay 0\n" +
           "address add " + address + " brd + dev " + name + "\n" + "link set " + name + " up\n";
}

std::string AddCable(const std::string& bridge, const std::string& port, pid_t init,
                     const std::string& name, const std::string& mac, bool up) {
    return "link add " + port + " type veth peer name " + name + " address " + mac + " netns " +
           std::to_string(init) + "\n" + "link set " + port + " master " + bridge +
           (up ? " up\n" : " down\n");
}

void SetWlan(pid_t init, bool up) {
    const UniqueFd network = OpenNamespace(init, "net");
    Command command{{"ip", "link", "set", "wlan0", up ? "up" : "down"}};
    command.network = network.Get();
    if (Run(command) != 0) {
        throw std::runtime_error("wlan0 cannot be set (see ip's message on the runner)");
    }
}

std::string AddressOf(pid_t init, const std::string& interface) {
    const UniqueFd network(
        open(("/proc/" + std::to_string(init) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC));
    std::string found;
    // In a thread of its own, so that the caller's thread stays in its network.
    std::thread([&] {
        if (network && setns(network.Get(), CLONE_NEWNET) == 0) {
            found = AddressHere(interface);
        }
    }).join();
    return found;
}

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

DhcpServer::DhcpServer(std::filesystem::path folder, std::string config, int network)
    : folder_(std::move(folder)), config_(std::move(config)), network_(network) {}

void DhcpServer::Start() {
    if (Running()) {
        return;
    }
    WriteText(folder_ / "udhcpd.conf",
              config_ + "lease_file udhcpd.leases\n" + "pidfile udhcpd.pid\n");
    WriteText(folder_ / "udhcpd.leases", "");
    const UniqueFd log(
        open((folder_ / "udhcpd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    // -a: milliseconds to check whether an address is taken before offering it.
    Command command{{"udhcpd", "-f", "-a", "20", "udhcpd.conf"}};
    command.directory = folder_;
    command.network = network_;
    command.output = log.Get();
    command.error = log.Get();
    command.dieWithParent = true;
    command.newSession = true;
    pid_ = vboard::Start(command);
}

void DhcpServer::Stop() {
    if (Running()) {
        (void)kill(pid_, SIGKILL);
        (void)WaitStatus(pid_);
        pid_ = -1;
    }
}

BenchNetwork::BenchNetwork(const NetworkConfig& config, const StateDir& state)
    : config_(config), dhcp_(state.Path(), kDhcpConfig) {}

void BenchNetwork::Create() {
    BecomeRoot();
    EnterNewNetwork();
    std::string batch = "link set lo up\n";
    if (!config_.ethAddress.empty()) {
        batch += AddBridge("lan0", "02:76:62:00:00:01", BenchAddress(config_.ethAddress));
    }
    if (config_.wifi) {
        batch += AddBridge("ap0", "02:76:62:00:01:01", kApAddress);
    }
    // Lets tools that search by limited broadcast find the board without naming an interface.
    if (!config_.ethAddress.empty() || config_.wifi) {
        batch += std::string("route add broadcast 255.255.255.255 dev ") +
                 (config_.ethAddress.empty() ? "ap0" : "lan0") + "\n";
    }
    Ip(batch);
    if (config_.wifi) {
        dhcp_.Start();
    }
}

void BenchNetwork::Attach(pid_t init) {
    std::string batch;
    if (!config_.ethAddress.empty()) {
        batch += AddCable("lan0", "lan0p", init, "eth0", "02:76:62:00:00:02", true);
    }
    if (config_.wifi) {
        batch += AddCable("ap0", "ap0p", init, "wlan0", "02:76:62:00:01:02", carrier_);
    }
    if (!batch.empty()) {
        Ip(batch);
    }
    attached_ = true;
}

void BenchNetwork::Detach() {
    // The kernel also removes them some time after the board's end. Either may come first; this way
    // there is no need to wait.
    IpQuietly("link del lan0p\nlink del ap0p\n");
    attached_ = false;
}

void BenchNetwork::RequireWifi() const {
    if (!config_.wifi) {
        throw std::runtime_error("this board has no Wi-Fi (it runs with --no-wifi)");
    }
}

void BenchNetwork::AccessPoint(const std::string& action) {
    RequireWifi();
    if (action == "up" || action == "down") {
        if (attached_) {
            Ip("link set ap0p " + action + "\n");
        }
        carrier_ = action == "up";
    } else if (action == "mute" || action == "unmute") {
        // With only the bridge down, the carrier stays up and nothing answers.
        muted_ = action == "mute";
        Ip(std::string("link set ap0 ") + (muted_ ? "down\n" : "up\n"));
    } else if (action == "dhcp") {
        dhcp_.Start();
    } else if (action == "no-dhcp") {
        dhcp_.Stop();
    } else {
        throw std::runtime_error("unknown request to the access point: \"" + action + "\"");
    }
}

void BenchNetwork::WlanLink(pid_t init, bool up) {
    RequireWifi();
    SetWlan(init, up);
}

std::string BenchNetwork::Describe() const {
    if (!config_.wifi) {
        return "no Wi-Fi";
    }
    return std::string("access point ") + (carrier_ ? "up" : "down") + (muted_ ? ", mute" : "") +
           (dhcp_.Running() ? ", dhcp" : ", no dhcp");
}

}  // namespace vboard
