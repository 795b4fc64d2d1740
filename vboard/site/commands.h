// The commands of `vboard site` that talk to a running site.
#pragma once

#include <string>
#include <vector>

#include "vboard/state.h"

namespace vboard::site {

// Prints the site and its boards, as a table or as one JSON object.
void ShowSite(const StateDir& site, bool asJson);

struct StartOptions {
    int count = 0;
    std::vector<std::string> run;  // options of `vboard run`, then "--", then the program
    bool noWait = false;
    double timeout = 60;  // seconds
};
// Starts boards under the lowest free numbers. They belong to the site, not to the caller.
// Returns when wlan0 of each has an address; with `noWait`, when each program was started. Throws
// when one ends before that or when time is up; the others keep running.
void StartBoards(const StateDir& site, const StartOptions& options);

// Makes the DHCP server give wlan0 of this board `address` with its next request.
void SetLease(const StateDir& site, int number, const std::string& address);

// "dhcp" or "no-dhcp".
void SetDhcp(const StateDir& site, const std::string& action);

// Runs a command in the laptop's network, with the host's files. Returns its exit status.
int RunOnLaptop(const StateDir& site, const std::vector<std::string>& command);

// Returns when the site and its boards have ended.
void StopSite(const StateDir& site);

}  // namespace vboard::site
