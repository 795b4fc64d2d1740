// One boot of the board: init, process 1 of the board's namespaces. The runner starts this program
// again as init. The two exchange messages over a socket:
//
//     runner → init   the BootConfig with the devices' file system beside it. By then the runner
//                     serves the devices and the network interfaces exist.
//     init → runner   {"event":"started","pid":…} (the pid as the board sees it),
//                     {"event":"ended","code":…}, {"event":"failed","text":…}
//
// The runner learns of a reset from how init ends. SIGHUP means "reboot -f": the kernel reports
// reboot(2) in a PID namespace this way. Exit code kExitReboot means an orderly "reboot".
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vboard {

constexpr int kInitSocket = 3;
constexpr int kExitReboot = 10;
constexpr int kExitPowerOff = 11;
constexpr int kExitFailed = 1;

struct BootConfig {
    std::string root;        // an empty folder of the host, over which the board's tree is built
    std::string state;       // the state folder
    std::string program;     // absolute path of the program
    std::string self;        // absolute path of vboard, which is also the command-link client
    std::string appFlash;    // backing file of the application's partition, empty if there is none
    std::string ethAddress;  // "ADDRESS/LEN", empty without eth0
    int speed = 1;           // of the board's clock
    std::vector<std::string> devices;  // names at the root of the devices' file system
    std::vector<std::string> arguments;
    std::vector<std::string> environment;  // "NAME=VALUE", beside the board's own
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BootConfig, root, state, program, self, appFlash, ethAddress,
                                   speed, devices, arguments, environment)

// The environment of programs on the board, with a clock that runs `speed` times as fast as the
// host's. Throws when the host cannot accelerate a clock.
std::vector<std::string> BoardEnvironment(int speed);

// Runs as init. Expects the socket as descriptor kInitSocket, the console as standard output and
// the trace as standard error.
int InitMain();

}  // namespace vboard
