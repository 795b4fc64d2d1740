// The bench network: what a technician's laptop and a service access point are to the board. It
// lives in the runner's own network namespace and outlasts the board's boots.
//
//     lan0   192.168.10.1/24   a bridge; the board's eth0 is plugged in at each boot
//     ap0    172.20.18.1/24    a bridge that plays the access point, with a DHCP server; wlan0
#pragma once

#include <sys/types.h>

#include <string>

#include "vboard/state.h"

namespace vboard {

struct NetworkConfig {
    std::string ethAddress = "192.168.10.2/24";  // empty: no eth0
    bool wifi = true;
};

class BenchNetwork {
  public:
    BenchNetwork(const NetworkConfig& config, const StateDir& state);
    ~BenchNetwork();
    BenchNetwork(const BenchNetwork&) = delete;
    BenchNetwork& operator=(const BenchNetwork&) = delete;

    // Makes the bench's interfaces in a new network namespace that the caller enters by it.
    void Create();
    // Gives the board whose process 1 is `init` its interfaces; all are down.
    void Attach(pid_t init);
    // Takes the plugs out; the board must be gone.
    void Detach();

    // "up", "down", "mute", "unmute", "dhcp", "no-dhcp".
    void AccessPoint(const std::string& action);
    // Administrative state of the board's wlan0.
    void WlanLink(pid_t init, bool up);
    std::string Describe() const;

  private:
    void StartDhcp();
    void StopDhcp();
    void RequireWifi() const;

    NetworkConfig config_;
    const StateDir& state_;
    bool carrier_ = true;
    bool muted_ = false;
    pid_t dhcp_ = -1;
};

// Throws one clear sentence for what is not "ADDRESS/LEN". The bench's side of that network:
// its first address that is not the board's.
std::string BenchAddress(const std::string& boardAddress);

}  // namespace vboard
