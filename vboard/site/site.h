// The runner of a site. It owns two network namespaces: the air, with the access point, its DHCP
// server and the wired bridge, and the laptop's, in which the runner itself runs. Boards are
// processes of their own, started by the site or by anybody else. They join through its control
// socket and end when that connection closes.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vboard/control.h"
#include "vboard/loop.h"
#include "vboard/network.h"
#include "vboard/state.h"

namespace vboard::site {

struct SiteOptions {
    std::string rate;    // of the air in each direction, as tc(8) writes it; empty: no limit
    bool wired = false;  // the laptop is on the wired network too
};

class Site {
  public:
    // Creates the namespaces. Throws one clear sentence when the host or the state folder cannot be
    // used.
    Site(SiteOptions options, const StateDir& state);
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    // Serves the site until it is stopped and its boards have ended. Returns the exit status. Call
    // it on the process's first thread, which must live as long as the site.
    int Run();

  private:
    void CreateNetwork();
    void Shape();
    void OnSignal();
    void Stop();
    nlohmann::json Handle(int connection, const nlohmann::json& request);
    nlohmann::json Join(int connection, int number);
    nlohmann::json StartBoards(const nlohmann::json& request);
    std::vector<int> FreeNumbers(int count) const;
    void Reap();
    bool Empty() const { return boards_.empty() && started_.empty(); }
    nlohmann::json Status() const;
    void Lease(int number, const std::string& address);
    void OnClosed(int connection);

    SiteOptions options_;
    const StateDir& state_;
    UniqueFd lock_;
    UniqueFd signals_;
    UniqueFd air_;
    Loop loop_;
    std::unique_ptr<DhcpServer> dhcp_;
    std::unique_ptr<ControlServer> control_;
    std::map<int, int> boards_;          // number → connection, of boards that have joined
    std::map<int, pid_t> started_;       // number → runner, of boards started here
    std::map<int, std::string> leases_;  // number → address that wlan0 must get
    bool stopping_ = false;
};

}  // namespace vboard::site
