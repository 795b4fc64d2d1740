// The runner of one board. Flash, /param, the network and the button last as long as the runner.
// Each boot gets new namespaces, a new init and new logs.
#pragma once

#include <sys/types.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "vboard/console.h"
#include "vboard/control.h"
#include "vboard/devices/devices.h"
#include "vboard/loop.h"
#include "vboard/network.h"
#include "vboard/state.h"

namespace vboard {

struct BoardOptions {
    std::string layout;
    uint32_t eraseBlock = 65536;
    bool norTiming = false;
    int speed = 1;  // of the board's clock
    bool wifi = true;
    int maxBoots = 0;  // 0: no limit
    bool quiet = false;
    std::vector<std::string> program;  // file and arguments
    std::vector<std::string> environment;
};

class Board {
  public:
    // Throws one clear sentence when the host, the state folder or the program cannot be used.
    Board(const BoardOptions& options, const StateDir& state,
          std::unique_ptr<BoardNetwork> network);
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    // Switches the board on and serves it until it is stopped. Returns the exit status. Call it on
    // the process's first thread, which must live as long as the board.
    int Run();

  private:
    void StartBoot(const std::string& reason);
    void FinishBoot(int waitStatus);
    // Cuts the power; the boot ends with `reason`. Only the first reason counts. FinishBoot decides
    // whether another boot follows.
    void CutPower(const std::string& reason);
    void Stop(int exitStatus);
    std::string ResetReason(int waitStatus) const;

    void OnSignal();
    void OnInitMessage();
    void OnWatchdog();
    void OnPowerCut();
    void SetPower(const std::string& action);
    nlohmann::json Handle(int connection, const nlohmann::json& request);
    nlohmann::json Status();
    // A short status, cheap enough to be asked often.
    nlohmann::json Brief() const;
    void AddFault(const nlohmann::json& request);
    void AddPowerFault(const nlohmann::json& request);
    void PressButton(int connection, bool pressed);
    // Throws if the board is off.
    void RequirePower() const;

    BoardOptions options_;
    std::string self_;  // path of this program
    const StateDir& state_;
    UniqueFd lock_;
    Loop loop_;
    std::unique_ptr<BoardNetwork> network_;
    std::vector<PartitionConfig> partitions_;
    UniqueFd signals_;
    UniqueFd watchdogEvent_;
    UniqueFd powerEvent_;
    std::unique_ptr<Devices> devices_;
    std::unique_ptr<ControlServer> control_;

    // State of the current boot.
    std::unique_ptr<Console> console_;
    UniqueFd initSocket_;
    pid_t init_ = -1;
    std::string cutReason_;  // why the power was cut; empty while it is on
    std::string failure_;    // what init reported before it failed
    pid_t program_ = 0;  // its pid on the board, 0 before it is started and while the board is off
    int programCode_ = -1;  // its exit code, -1 while it runs

    std::vector<std::string> reasons_;  // of all boots, in order
    bool powered_ = true;               // false from a power cut until the power is on again
    int buttonHolder_ = -1;             // connection that holds the button down
    bool stopping_ = false;
    int exitStatus_ = 0;
};

}  // namespace vboard
