// The network around a board, with the access point and the technician's laptop. It survives the
// board's resets.
//
// A board on a bench of its own has this in the runner's network namespace:
//
//     lan0   192.168.10.1/24   a bridge; the board's eth0 is plugged in at each boot
//     ap0    172.20.18.1/24    a bridge that plays the access point, with a DHCP server; wlan0
//                              is plugged in at each boot
//
// A board on a site shares both bridges with others (site/site_link.h).
#pragma once

#include <sys/types.h>

#include <string>

#include "vboard/state.h"

namespace vboard {

struct NetworkConfig {
    std::string ethAddress = "192.168.10.2/24";  // empty: no eth0
    bool wifi = true;
};

class BoardNetwork {
  public:
    virtual ~BoardNetwork() = default;

    // Makes or joins the namespaces and their interfaces. The caller becomes root in its user
    // namespace and enters the network of the board's neighbours; call it while the process has
    // one thread.
    virtual void Create() = 0;
    // Creates the interfaces of the board whose process 1 is `init`. All are down.
    virtual void Attach(pid_t init) = 0;
    // Removes the interfaces. The board must be gone.
    virtual void Detach() = 0;

    // "up", "down", "mute", "unmute", "dhcp", "no-dhcp". Between Detach and Attach the state of the
    // board's cable is only remembered, for Attach.
    virtual void AccessPoint(const std::string& action) = 0;
    // Sets the board's wlan0 up or down.
    virtual void WlanLink(pid_t init, bool up) = 0;
    virtual std::string Describe() const = 0;

    // "ADDRESS/LEN" of the board's eth0, empty without one.
    virtual const std::string& EthAddress() const = 0;
    // The board's number on its site, 0 on a bench of its own.
    virtual int Number() const { return 0; }
    // Becomes readable when the network's owner has ended, and the board must end. -1: the runner
    // owns the network.
    virtual int EndFd() const { return -1; }
};

// A DHCP server in a network namespace. It ends with the object and with the thread that starts it.
class DhcpServer {
  public:
    // `config` is the text for udhcpd. It, the leases and the log become files in `folder`.
    // `network`: the namespace's descriptor, which outlives the object; -1: the caller's own.
    DhcpServer(std::filesystem::path folder, std::string config, int network = -1);
    ~DhcpServer() { Stop(); }
    DhcpServer(const DhcpServer&) = delete;
    DhcpServer& operator=(const DhcpServer&) = delete;

    // Does nothing if it already runs.
    void Start();
    void Stop();
    bool Running() const { return pid_ > 0; }

  private:
    std::filesystem::path folder_;
    std::string config_;
    int network_;
    pid_t pid_ = -1;
};

class BenchNetwork : public BoardNetwork {
  public:
    BenchNetwork(const NetworkConfig& config, const StateDir& state);

    void Create() override;
    void Attach(pid_t init) override;
    void Detach() override;
    void AccessPoint(const std::string& action) override;
    void WlanLink(pid_t init, bool up) override;
    std::string Describe() const override;
    const std::string& EthAddress() const override { return config_.ethAddress; }

  private:
    void RequireWifi() const;

    NetworkConfig config_;
    DhcpServer dhcp_;
    bool attached_ = false;
    bool carrier_ = true;
    bool muted_ = false;
};

// Makes a network namespace and enters it.
void EnterNewNetwork();
// Runs ip(8) commands, a line each, in the namespace `network` (-1: the caller's own). Throws when
// one fails.
void Ip(const std::string& batch, int network = -1);
// The same for interfaces that may be gone already: ignores failures.
void IpQuietly(const std::string& batch, int network = -1);
// ip(8) commands for a bridge with an address, up.
std::string AddBridge(const std::string& name, const std::string& mac, const std::string& address);
// ip(8) commands for a cable from the bridge's `port` to `name`, which belongs to process `init`.
std::string AddCable(const std::string& bridge, const std::string& port, pid_t init,
                     const std::string& name, const std::string& mac, bool up);
// Sets wlan0 of the board whose process 1 is `init` up or down.
void SetWlan(pid_t init, bool up);
// IPv4 address of an interface of the board, empty when it has none.
std::string AddressOf(pid_t init, const std::string& interface);

// The bench's address in the board's network: the first one that is not the board's. Throws one
// clear sentence if `boardAddress` is not "ADDRESS/LEN".
std::string BenchAddress(const std::string& boardAddress);

}  // namespace vboard
