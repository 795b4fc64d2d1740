#include "vboard/site/site_link.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include "vboard/process.h"
#include "vboard/site/plan.h"

namespace vboard::site {

namespace {

// Names of a board's ports in the air.
std::string EthPort(int number) {
    return "e" + std::to_string(number);
}

std::string WlanPort(int number) {
    return "w" + std::to_string(number);
}

}  // namespace

SiteLink::SiteLink(const StateDir& site, int number, const std::string& ethAddress)
    : folder_(site.Path()), site_(site, Runner::kSite) {
    const nlohmann::json place = site_.Request({{"command", "join"}, {"number", number}});
    number_ = place.at("number");
    runner_ = place.at("runnerPid");
    airPath_ = place.at("air");
    ethAddress_ = ethAddress == kNoEth ? ""
                  : ethAddress.empty() ? site::EthAddress(number_)
                                       : ethAddress;
}

std::filesystem::path SiteLink::Folder() const {
    return BoardFolder(folder_, number_);
}

void SiteLink::Create() {
    if (!ethAddress_.empty()) {
        (void)BenchAddress(ethAddress_);  // throws if this is not an address
    }
    if (geteuid() != 0) {
        EnterNamespace(OpenNamespace(runner_, "user"), CLONE_NEWUSER);
        if (unshare(CLONE_NEWNS) != 0) {
            throw SysError("cannot make a mount namespace");
        }
    }
    air_.Reset(open(airPath_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!air_) {
        throw SysError("cannot reach the site's network");
    }
    EnterNamespace(OpenNamespace(runner_, "net"), CLONE_NEWNET);
}

void SiteLink::Attach(pid_t init) {
    std::string batch =
        AddCable(kAccessPoint, WlanPort(number_), init, "wlan0", WlanMac(number_), carrier_);
    if (muted_) {
        batch += "link set " + WlanPort(number_) + " nomaster\n";
    }
    if (!ethAddress_.empty()) {
        batch += AddCable(kWired, EthPort(number_), init, "eth0", EthMac(number_), true);
    }
    Ip(batch, air_.Get());
    attached_ = true;
}

void SiteLink::Detach() {
    IpQuietly("link del " + WlanPort(number_) + "\nlink del " + EthPort(number_) + "\n",
              air_.Get());
    attached_ = false;
}

void SiteLink::AccessPoint(const std::string& action) {
    const auto set = [this](const std::string& change) {
        if (attached_) {
            Ip("link set " + WlanPort(number_) + " " + change + "\n", air_.Get());
        }
    };
    if (action == "up" || action == "down") {
        set(action);
        carrier_ = action == "up";
    } else if (action == "mute" || action == "unmute") {
        // With its port off the bridge the board keeps its carrier, but nothing answers. The other
        // boards notice nothing.
        set(action == "mute" ? "nomaster" : std::string("master ") + kAccessPoint);
        muted_ = action == "mute";
    } else {
        throw std::runtime_error("the DHCP server is the site's (use: vboard site " + action + ")");
    }
}

std::string SiteLink::Describe() const {
    return "board " + std::to_string(number_) + " of the site " + folder_.string() + ", carrier " +
           (carrier_ ? "up" : "down") + (muted_ ? ", mute" : "");
}

}  // namespace vboard::site
