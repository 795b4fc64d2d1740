#include "vboard/boot.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "vboard/preflight.h"
#include "vboard/process.h"
#include "vboard/rootfs.h"

namespace vboard {

namespace {

constexpr char kScripts[] = "/opt/board/bin/";
constexpr std::chrono::nanoseconds kShutdownTime = std::chrono::seconds(3);

void Say(const std::string& text) {
    const std::string line = "board: " + text + "\n";
    (void)!write(STDOUT_FILENO, line.data(), line.size());
}

// Even under root, a simulated board must not reach the host's clock, modules or ports.
// CAP_SYS_BOOT stays: reboot(2) ends this namespace only.
void DropHostPowers() {
    for (const int capability : {CAP_SYS_TIME, CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_MKNOD, CAP_SYSLOG,
                                 CAP_MAC_ADMIN, CAP_WAKE_ALARM}) {
        (void)prctl(PR_CAPBSET_DROP, static_cast<unsigned long>(capability));
    }
}

sigset_t InitSignals() {
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGCHLD);
    (void)sigaddset(&set, SIGTERM);  // "reboot", as busybox tells its init
    (void)sigaddset(&set, SIGUSR1);  // "halt"
    (void)sigaddset(&set, SIGUSR2);  // "poweroff"
    return set;
}

class Init {
  public:
    Init() : socket_(kInitSocket) {}
    int Run();

  private:
    void Boot();
    void StartProgram();
    void StartApplication();
    void Reap();
    int Serve();
    [[noreturn]] void OrderlyReboot();
    void Report(const nlohmann::json& message) { SendMessage(socket_.Get(), message); }

    UniqueFd socket_;
    UniqueFd signals_;
    BootConfig config_;
    pid_t program_ = -1;
};

}  // namespace

std::vector<std::string> BoardEnvironment(int speed) {
    std::vector<std::string> environment = {"PATH=/opt/board/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                            "HOME=/root", "USER=root", "TERM=linux"};
    if (speed != 1) {
        // The kernel stamps received packets with the host's time. The board's clock starts a year
        // earlier, so that no packet seems to arrive before it was sent.
        environment.insert(environment.end(),
                           {"LD_PRELOAD=" + ClockLibrary(),
                            "FAKETIME=-1y x" + std::to_string(speed), "NO_FAKE_STAT=1"});
    }
    return environment;
}

void Init::Boot() {
    UniqueFd devices;
    const auto config = ReceiveMessage(socket_.Get(), &devices);
    if (!config) {
        throw std::runtime_error("the runner ended before the board was up");
    }
    config_ = config->get<BootConfig>();
    (void)sethostname("vboard", 6);
    (void)umask(022);
    BuildRoot(config_);
    PlaceDevices(config_, devices.Get());
    devices.Reset();
    EnterRoot(config_);
    DropHostPowers();

    const sigset_t set = InitSignals();
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_.Reset(signalfd(-1, &set, SFD_CLOEXEC));
    Command setup{{std::string(kScripts) + "rcS", config_.ethAddress},
                  BoardEnvironment(config_.speed)};
    setup.error = STDOUT_FILENO;
    (void)vboard::Run(setup);
    StartProgram();
    StartApplication();
}

void Init::StartProgram() {
    Command command{{"/opt/upgrade/upgradeMain"}, BoardEnvironment(config_.speed)};
    command.argv.insert(command.argv.end(), config_.arguments.begin(), config_.arguments.end());
    command.environment.insert(command.environment.end(), config_.environment.begin(),
                               config_.environment.end());
    command.newSession = true;
    program_ = Start(command);
    Say(std::string("started ") + kv::kSelfName);
    Report({{"event", "started"}, {"pid", program_}});
}

void Init::StartApplication() {
    if (access(kv::kAppPath, F_OK) != 0) {
        return;
    }
    Say(std::string("starting ") + kv::kAppName);
    Command command{{std::string(kScripts) + "startapp.sh"}, BoardEnvironment(config_.speed)};
    command.error = STDOUT_FILENO;
    command.newSession = true;
    (void)Start(command);
}

void Init::Reap() {
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (pid != program_) {
            continue;
        }
        const std::string how = WIFSIGNALED(status)
                                    ? "was killed by signal " + std::to_string(WTERMSIG(status))
                                    : "ended with status " + std::to_string(WEXITSTATUS(status));
        Say(std::string(kv::kSelfName) + " " + how);
        Report({{"event", "ended"}, {"code", ExitCode(status)}});
    }
}

void Init::OrderlyReboot() {
    Say("restarting: asking all processes to end");
    (void)kill(-1, SIGTERM);
    (void)kill(-1, SIGCONT);
    sigset_t childEnds;
    (void)sigemptyset(&childEnds);
    (void)sigaddset(&childEnds, SIGCHLD);
    const auto deadline = std::chrono::steady_clock::now() + kShutdownTime / config_.speed;
    // Ends early when no process is left. A process that entered the board from outside is not a
    // child of init and its end gives no signal, so look again every 20 ms.
    const timespec pause{0, 20'000'000};
    while (std::chrono::steady_clock::now() < deadline) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        if (kill(-1, 0) != 0 && errno == ESRCH) {
            break;
        }
        (void)sigtimedwait(&childEnds, nullptr, &pause);
    }
    _exit(kExitReboot);
}

int Init::Serve() {
    for (;;) {
        pollfd sources[] = {{signals_.Get(), POLLIN, 0}, {socket_.Get(), POLLIN, 0}};
        if (poll(sources, 2, -1) < 0 && errno != EINTR) {
            return kExitFailed;
        }
        if (sources[1].revents != 0) {
            return kExitPowerOff;  // the runner sends nothing after the BootConfig: it has ended
        }
        signalfd_siginfo info{};
        if (sources[0].revents == 0 || read(signals_.Get(), &info, sizeof(info)) != sizeof(info)) {
            continue;
        }
        if (info.ssi_signo == SIGTERM) {
            OrderlyReboot();
        }
        if (info.ssi_signo == SIGUSR1 || info.ssi_signo == SIGUSR2) {
            Say("switched off");
            return kExitPowerOff;
        }
        Reap();
    }
}

int Init::Run() {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)prctl(PR_SET_NAME, "init");
    (void)fcntl(socket_.Get(), F_SETFD, FD_CLOEXEC);
    // The board must not get descriptors that the runner inherited.
    (void)close_range(kInitSocket + 1, ~0U, 0);
    (void)setsid();
    try {
        Boot();
        return Serve();
    } catch (const std::exception& error) {
        try {
            Report({{"event", "failed"}, {"text", error.what()}});
        } catch (const std::exception&) {
            // The runner has gone.
            return kExitFailed;
        }
        return kExitFailed;
    }
}

int InitMain() {
    return Init().Run();
}

}  // namespace vboard
