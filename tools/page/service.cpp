#include "tools/page/service.h"

#include <fcntl.h>
#include <kv_version.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "common/kv_platform.h"
#include "tools/base/errors.h"
#include "tools/page/api.h"
#include "tools/page/device_watch.h"

namespace kvtool::page {

namespace {

constexpr Millis kTick{200};

bool HasScreen() {
    for (const char* const name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* const value = getenv(name);
        if (value != nullptr && *value != '\0') {
            return true;
        }
    }
    return false;
}

// Returns whether a program for it was found. Ctrl-C in the terminal does not reach the browser.
bool OpenBrowser(std::string address) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    (void)posix_spawn_file_actions_init(&files);
    (void)posix_spawnattr_init(&attributes);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        (void)posix_spawn_file_actions_addopen(&files, fd, "/dev/null", O_RDWR, 0);
    }
    sigset_t defaults;
    (void)sigemptyset(&defaults);
    (void)sigaddset(&defaults, SIGPIPE);
    (void)posix_spawnattr_setsigdefault(&attributes, &defaults);
    (void)posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF);
    std::string program = "xdg-open";
    char* const arguments[] = {program.data(), address.data(), nullptr};
    pid_t child = -1;
    const bool started =
        posix_spawnp(&child, program.c_str(), &files, &attributes, arguments, environ) == 0;
    (void)posix_spawn_file_actions_destroy(&files);
    (void)posix_spawnattr_destroy(&attributes);
    return started;
}

Json ServerJson(const ServeRequest& request) {
    return {{"version", kv::kVersion},
            {"started", fleet::TimeText(static_cast<double>(time(nullptr)))},
            {"identity", {{"ic", kv::kIcType}, {"sensor", kv::kSensorType}}},
            {"journal", Printable(request.journal)},
            {"trusted_key", request.settings.trustedKey.empty()
                                ? Json()
                                : Json(Printable(request.settings.trustedKey))},
            {"upload_limit", kUploadLimit}};
}

}  // namespace

ExitCode Serve(const ServeRequest& request, ServeListener* listener) {
    Archive archive(request.journal);
    Model model;
    model.SetServer(ServerJson(request));
    RunControl runs(request.settings, &archive, &model);
    HttpServer server(request.port);
    Gate gate(server.Port(), NewToken());
    Api api(&gate, &model, &runs, &archive, request.settings);
    const DeviceWatch watch(request.settings.discovery, &model);
    const Interrupt first;
    const Interrupt second;
    const InterruptsInSteps interrupts(first, second);
    server.Start([&api](HttpCall* call) { return api.Handle(call); });
    listener->Ready(gate.Address(gate.Token()), server.Port());
    if (request.openBrowser && HasScreen() && !OpenBrowser(gate.Address(gate.TokenForBrowser()))) {
        listener->Warn("xdg-open cannot be started: open the address in a browser");
    }
    (void)WaitFor(first.Fd(), POLLIN, Clock::time_point::max());
    if (runs.Running() && !second.Raised()) {
        runs.StopForEnd();
        const Flying flying = runs.Now();
        model.SetEnding(flying.total.underWay);
        listener->Ending(flying);
        while (runs.Running() && WaitFor(second.Fd(), POLLIN, Clock::now() + kTick) == 0) {
        }
    }
    const bool abandons = runs.Running();
    model.SetEnding(runs.Now().total.underWay);
    runs.Abandon();
    server.Stop();
    return abandons ? ExitCode::kInterrupted : ExitCode::kDone;
}

}  // namespace kvtool::page
