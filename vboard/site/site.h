// The site's runner: owns the air (a namespace with the access point, its DHCP server and the wired
// bridge) and the laptop's namespace, and knows which boards are there. It lives in the laptop's
// namespace. Boards are processes of their own, started by it or by anybody; they join over its
// control socket and end when that connection does.
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
    std::string rate;  // of the air in each direction, as tc(8) writes it; empty: no limit
};

class Site {
  public:
    // Makes the namespaces. Throws one clear sentence when the host or the state folder is
    // unusable.
    Site(SiteOptions options, const StateDir& state);
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    // Serves the site until it is stopped and its boards have ended. Returns the exit status. The
    // calling thread must live as long as the site.
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
    std::map<int, int> boards_;          // number → connection, of those that have joined
    std::map<int, pid_t> started_;       // number → runner, of those started here
    std::map<int, std::string> leases_;  // number → address of wlan0 that the server must give
    bool stopping_ = false;
};

}  // namespace vboard::site
