#include "tools/device/discovery_client.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "tools/base/errors.h"
#include "tools/device/tcp.h"

namespace kvtool {

namespace {

// One address to send searches to, and the interface to use (0: as routed).
struct Target {
    std::string label;
    in_addr destination{};
    in_addr source{};
    unsigned interfaceIndex = 0;
    std::string sourceMac;
    bool hasLink = true;  // without a link the system drops each search and reports no error
};

std::string AddressText(in_addr address) {
    char text[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

in_addr Ipv4Of(const sockaddr* address) {
    sockaddr_in ipv4{};
    memcpy(&ipv4, address, sizeof ipv4);
    return ipv4.sin_addr;
}

std::string MacOf(const ifaddrs* list, const char* name) {
    for (const ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
        if (item->ifa_addr != nullptr && item->ifa_addr->sa_family == AF_PACKET &&
            strcmp(item->ifa_name, name) == 0) {
            sockaddr_ll link{};
            memcpy(&link, item->ifa_addr, sizeof link);
            return Hex(link.sll_addr, 6, ":");
        }
    }
    return "";
}

bool Wanted(const std::vector<std::string>& interfaces, const char* name) {
    return interfaces.empty() ||
           std::find(interfaces.begin(), interfaces.end(), name) != interfaces.end();
}

// A bridge without a link has no cable that somebody could plug in. Containers leave such bridges
// behind.
bool IsBridge(const std::string& interface) {
    std::error_code ignored;
    return std::filesystem::exists("/sys/class/net/" + interface + "/bridge", ignored);
}

// The broadcast address of each subnet, and the limited broadcast address. The latter also reaches
// a device with an address of another subnet. Unnamed bridges without a link are left out.
std::vector<Target> BroadcastTargets(const std::vector<std::string>& interfaces) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot list the network interfaces");
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
    std::vector<Target> targets;
    for (const ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
        if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_INET ||
            (item->ifa_flags & IFF_UP) == 0 || (item->ifa_flags & IFF_BROADCAST) == 0 ||
            item->ifa_broadaddr == nullptr || !Wanted(interfaces, item->ifa_name)) {
            continue;
        }
        const bool hasLink = (item->ifa_flags & IFF_RUNNING) != 0;
        if (!hasLink && interfaces.empty() && IsBridge(item->ifa_name)) {
            continue;
        }
        Target target;
        target.label = item->ifa_name;
        target.source = Ipv4Of(item->ifa_addr);
        target.interfaceIndex = if_nametoindex(item->ifa_name);
        target.sourceMac = MacOf(list, item->ifa_name);
        target.hasLink = hasLink;
        target.destination.s_addr = INADDR_BROADCAST;
        targets.push_back(target);
        target.destination = Ipv4Of(item->ifa_broadaddr);
        if (target.destination.s_addr != INADDR_BROADCAST &&
            target.destination.s_addr != INADDR_ANY) {
            targets.push_back(target);
        }
    }
    return targets;
}

void RequireEach(const std::vector<std::string>& interfaces, const std::vector<Target>& targets) {
    for (const std::string& name : interfaces) {
        if (std::none_of(targets.begin(), targets.end(),
                         [&name](const Target& target) { return target.label == name; })) {
            throw ToolError(ExitCode::kUnreachable,
                            "cannot broadcast on '" + Printable(name) +
                                "': it does not exist, is down, or has no IPv4 address");
        }
    }
    if (targets.empty()) {
        throw ToolError(ExitCode::kUnreachable,
                        "no interface that is up and has an IPv4 address can broadcast");
    }
}

std::vector<Target> HostTargets(const std::string& host, uint16_t port) {
    for (const Endpoint& endpoint : Resolve(host, port)) {
        if (endpoint.address.ss_family == AF_INET) {
            Target target;
            target.label = host;
            target.destination = Ipv4Of(reinterpret_cast<const sockaddr*>(&endpoint.address));
            return {target};
        }
    }
    throw ToolError(ExitCode::kUnreachable, "'" + Printable(host) + "' has no IPv4 address");
}

// The addresses that the device names and answers from.
std::set<std::string> AddressesOf(const FoundDevice& device) {
    std::set<std::string> addresses(device.senders.begin(), device.senders.end());
    if (!device.reply.ip.empty()) {
        addresses.insert(device.reply.ip);
    }
    return addresses;
}

void MarkConflicts(std::vector<FoundDevice>* devices) {
    std::map<std::string, int> byMac;
    std::map<std::string, int> byAddress;
    for (const FoundDevice& device : *devices) {
        ++byMac[device.reply.mac];
        for (const std::string& address : AddressesOf(device)) {
            ++byAddress[address];
        }
    }
    for (FoundDevice& device : *devices) {
        const std::set<std::string> addresses = AddressesOf(device);
        device.conflict =
            (!device.reply.mac.empty() && byMac[device.reply.mac] > 1) ||
            std::any_of(addresses.begin(), addresses.end(),
                        [&](const std::string& address) { return byAddress[address] > 1; });
    }
}

class Searcher {
  public:
    Searcher(const SearchSockets& sockets, const DiscoveryRequest& request,
             std::vector<Target> targets)
        : sockets_(sockets), request_(request), targets_(std::move(targets)) {}

    DiscoveryResult Run(const std::function<bool(const FoundDevice&)>& enough) {
        const Clock::time_point start = Clock::now();
        const Clock::time_point end = start + request_.timeout;
        const int rounds = std::max(1, request_.repeat);
        for (int round = 0; round < rounds; ++round) {
            SendRound();
            const bool last = round + 1 == rounds;
            const auto next = start + request_.timeout * (round + 1) / (2 * rounds);
            if (Listen(last ? end : next, enough)) {
                break;
            }
        }
        MarkConflicts(&result_.devices);
        return std::move(result_);
    }

  private:
    void SendRound() {
        for (const Target& target : targets_) {
            if (target.hasLink && SendTo(target)) {
                ++result_.sent;
                continue;
            }
            const std::string why =
                target.hasLink ? ", to " + AddressText(target.destination) + ": " + strerror(errno)
                               : ": no link";
            std::string problem = target.label + why;
            if (std::find(result_.problems.begin(), result_.problems.end(), problem) ==
                result_.problems.end()) {
                result_.problems.push_back(std::move(problem));
            }
        }
    }

    // Whether the search is for this address only.
    bool IsHost(in_addr address) const {
        return !request_.host.empty() && targets_.front().destination.s_addr == address.s_addr;
    }
    bool SendTo(const Target& target);
    bool Listen(Clock::time_point until, const std::function<bool(const FoundDevice&)>& enough);
    FoundDevice* Take(const uint8_t* data, size_t size, const std::string& sender);

    const SearchSockets& sockets_;
    const DiscoveryRequest& request_;
    std::vector<Target> targets_;
    DiscoveryResult result_;
};

// Each datagram names its interface. This needs no privilege.
bool Searcher::SendTo(const Target& target) {
    const std::string source =
        target.interfaceIndex != 0 ? AddressText(target.source) : std::string();
    std::array<uint8_t, kSearchSize> request = SearchRequest(source, target.sourceMac);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(request_.port);
    to.sin_addr = target.destination;
    iovec data{request.data(), request.size()};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (target.interfaceIndex != 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = IPPROTO_IP;
        header->cmsg_type = IP_PKTINFO;
        header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
        in_pktinfo info{};
        info.ipi_ifindex = static_cast<int>(target.interfaceIndex);
        info.ipi_spec_dst = target.source;
        memcpy(CMSG_DATA(header), &info, sizeof info);
    }
    return sendmsg(sockets_.Sender(), &message, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(request.size());
}

bool Searcher::Listen(Clock::time_point until,
                      const std::function<bool(const FoundDevice&)>& enough) {
    const auto take = [this, &enough](const uint8_t* data, size_t size, in_addr sender) {
        const FoundDevice* device = Take(data, size, AddressText(sender));
        return device == nullptr || (!IsHost(sender) && (!enough || !enough(*device)));
    };
    while (Clock::now() < until && WaitFor(sockets_.Waiting(), POLLIN, until) != 0) {
        if (!sockets_.Drain(take)) {
            return true;
        }
    }
    return false;
}

FoundDevice* Searcher::Take(const uint8_t* data, size_t size, const std::string& sender) {
    DiscoveryReply reply;
    const std::string fault = ParseDiscoveryReply(data, size, &reply);
    if (!fault.empty()) {
        ++result_.malformed[sender + ": " + fault];
        return nullptr;
    }
    // A device that reports no MAC address is recognized by the senders of its replies.
    for (FoundDevice& known : result_.devices) {
        const bool sameSender =
            std::find(known.senders.begin(), known.senders.end(), sender) != known.senders.end();
        if (known.reply.mac != reply.mac || (reply.mac.empty() && !sameSender) ||
            known.reply.ip != reply.ip) {
            continue;
        }
        if (!sameSender) {
            known.senders.push_back(sender);
        }
        return &known;
    }
    result_.devices.push_back({std::move(reply), {sender}, false});
    return &result_.devices.back();
}

}  // namespace

const std::string& FoundDevice::Address() const {
    const bool seen = std::find(senders.begin(), senders.end(), reply.ip) != senders.end();
    return seen || senders.empty() ? reply.ip : senders.front();
}

DiscoveryResult Discover(const DiscoveryRequest& request,
                         const std::function<bool(const FoundDevice&)>& enough) {
    return Discover(SearchSockets(), request, enough);
}

DiscoveryResult Discover(const SearchSockets& sockets, const DiscoveryRequest& request,
                         const std::function<bool(const FoundDevice&)>& enough) {
    std::vector<Target> targets;
    if (request.host.empty()) {
        targets = BroadcastTargets(request.interfaces);
        RequireEach(request.interfaces, targets);
    } else {
        targets = HostTargets(request.host, request.port);
    }
    return Searcher(sockets, request, std::move(targets)).Run(enough);
}

std::vector<SearchInterface> SearchInterfaces(const std::vector<std::string>& wanted) {
    std::vector<SearchInterface> interfaces;
    for (const Target& target : BroadcastTargets(wanted)) {
        if (target.hasLink && target.destination.s_addr == INADDR_BROADCAST) {
            interfaces.push_back({Printable(target.label), AddressText(target.source)});
        }
    }
    return interfaces;
}

std::vector<std::string> Conflicts(const DiscoveryResult& result) {
    std::map<std::string, std::vector<std::string>> byMac;
    std::map<std::string, std::vector<std::string>> byAddress;
    for (const FoundDevice& device : result.devices) {
        byMac[device.reply.mac].push_back(device.reply.ip);
        for (const std::string& address : AddressesOf(device)) {
            byAddress[address].push_back(device.reply.mac);
        }
    }
    std::vector<std::string> conflicts;
    const auto add = [&conflicts](auto& groups, const char* what, const char* others) {
        for (auto& [key, values] : groups) {
            if (key.empty() || values.size() < 2) {
                continue;
            }
            // The order of the answers differs from search to search.
            std::sort(values.begin(), values.end());
            std::string text = std::string(what) + " " + key + " belongs to " +
                               std::to_string(values.size()) + " devices, with the " + others;
            for (const std::string& value : values) {
                text += (&value == &values.front() ? " " : ", ") + (value.empty() ? "-" : value);
            }
            conflicts.push_back(std::move(text));
        }
    };
    add(byMac, "MAC address", "addresses");
    add(byAddress, "address", "MAC addresses");
    return conflicts;
}

std::map<std::string, std::string> Confusable(const DiscoveryResult& result) {
    std::map<std::string, int> byMac;
    std::map<std::string, int> bySender;
    for (const FoundDevice& device : result.devices) {
        ++byMac[device.reply.mac];
        for (const std::string& sender : device.senders) {
            ++bySender[sender];
        }
    }
    std::map<std::string, std::string> reasons;
    for (const FoundDevice& device : result.devices) {
        const std::string& mac = device.reply.mac;
        if (mac.empty()) {
            continue;
        }
        if (byMac[mac] > 1) {
            reasons[mac] = "two devices answer with this MAC address";
        }
        for (const std::string& sender : device.senders) {
            if (bySender[sender] > 1) {
                (void)reasons.emplace(mac, "another device also answers from " + sender);
            }
        }
    }
    return reasons;
}

std::optional<DiscoveryReply> AskAt(const std::string& host, uint16_t port, Millis timeout) {
    DiscoveryRequest request;
    request.host = host;
    request.port = port;
    request.timeout = timeout;
    try {
        const DiscoveryResult result = Discover(request, nullptr);
        if (!result.devices.empty()) {
            return result.devices.front().reply;
        }
    } catch (const ToolError& error) {
        if (error.Code() != ExitCode::kUnreachable) {
            throw;
        }
    }
    return std::nullopt;
}

const FoundDevice* FindMac(const DiscoveryResult& result, const std::string& mac) {
    const auto found = std::find_if(
        result.devices.begin(), result.devices.end(),
        [&mac](const FoundDevice& device) { return device.reply.mac == UpperCase(mac); });
    return found == result.devices.end() ? nullptr : &*found;
}

}  // namespace kvtool
