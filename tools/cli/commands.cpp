#include "tools/cli/commands.h"

#include <iostream>

#include "common/kv_platform.h"
#include "tools/cli/console_listener.h"
#include "tools/cli/load_package.h"
#include "tools/cli/report.h"
#include "tools/device/device_lock.h"
#include "tools/device/follow.h"

namespace kvtool {

namespace {

constexpr Millis kRetryPause{1000};
constexpr Millis kWaitingTry{3000};

struct Target {
    std::string host;
    uint16_t port;
    std::optional<DiscoveryReply> reply;  // when it was searched for
};

// Where to connect to; searches for the device when it is given by its MAC address. The sender's
// address is taken rather than the one in the reply: it is the one that was seen to work.
Target Locate(const DeviceCommand& command, Json* json) {
    const std::optional<std::string> mac = ParseMacAddress(command.host);
    if (!mac) {
        return {command.host, command.port.value_or(kv::kProtocolPort), std::nullopt};
    }
    DiscoveryRequest request;
    request.port = command.discoveryPort;
    const DiscoveryResult result =
        Discover(request, [&mac](const FoundDevice& device) { return device.reply.mac == *mac; });
    const FoundDevice* device = FindMac(result, *mac);
    if (device == nullptr) {
        throw ToolError(ExitCode::kUnreachable,
                        "no device with the MAC address " + *mac + " answers a search");
    }
    (*json)["mac"] = *mac;
    (*json)["address"] = device->senders.front();
    return {device->senders.front(), command.port.value_or(device->reply.commandPort),
            device->reply};
}

// An upgrade's connection, and what a search has told of the device, if there was one.
struct OpenDevice {
    UpgradeSession session;
    std::optional<DiscoveryReply> reply;
};

OpenDevice ConnectAndLogin(const DeviceCommand& command, const UpgradeTimes& times,
                           UpgradeListener* listener, UpgradeRecord* record, Json* json) {
    Target target = Locate(command, json);
    UpgradeSession session(times, listener, record);
    session.Connect(target.host, target.port);
    session.Login();
    return {std::move(session), std::move(target.reply)};
}

bool MayAppearLater(ExitCode code) {
    return code == ExitCode::kUnreachable || code == ExitCode::kNoReply ||
           code == ExitCode::kLost || code == ExitCode::kBadReply;
}

// Tries until the device lets itself be logged in to or the time is over. Says each new reason
// once.
OpenDevice WaitForDevice(const UpgradeCommand& command, UpgradeListener* listener,
                         UpgradeRecord* record, Json* json) {
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + *command.wait;
    UpgradeTimes quick = command.times;
    quick.connect = std::min(quick.connect, kWaitingTry);
    quick.reply = std::min(quick.reply, kWaitingTry);
    std::string last;
    listener->Line("waiting for " + Printable(command.device.host));
    for (;;) {
        try {
            OpenDevice device = ConnectAndLogin(command.device, quick, listener, record, json);
            record->phases.insert(record->phases.begin(), {"wait", SecondsSince(start)});
            return device;
        } catch (const ToolError& error) {
            if (!MayAppearLater(error.Code()) || Clock::now() + kRetryPause >= deadline) {
                throw;
            }
            if (last != error.what()) {
                last = error.what();
                listener->Line("not yet: " + last);
            }
        }
        // Of the attempts only the one that succeeds belongs in the record.
        *record = UpgradeRecord{};
        WaitUntil(Clock::now() + kRetryPause);
    }
}

// What to follow the device by. A device that was not searched for is asked now: once it has
// accepted it may be too late.
FollowTarget TargetToFollow(const UpgradeCommand& command, const OpenDevice& device,
                            UpgradeListener* listener, UpgradeRecord* record) {
    FollowTarget target;
    target.endpoint = device.session.Peer();
    target.local = LocalEnd(device.session.Fd());
    target.discoveryPort = command.device.discoveryPort;
    target.version = command.expectVersion;
    const std::optional<DiscoveryReply> reply =
        device.reply ? device.reply
                     : AskAt(target.endpoint.host, target.discoveryPort, command.times.ask);
    if (reply) {
        target.mac = record->mac = reply->mac;
        target.alivePort = reply->rtspPort;
    } else {
        listener->Line(
            "the device answers no search: it cannot be found under another address later");
    }
    target.alivePort = command.alivePort.value_or(target.alivePort);
    if (target.alivePort == 0) {
        listener->Line(
            "which port its application opens is not known: without --expect-port it cannot be "
            "seen alive");
    }
    return target;
}

ExitCode DoUpgrade(const UpgradeCommand& command, const Layout& layout, ConsoleListener* listener,
                   UpgradeRecord* record, Json* json) {
    (*json)["host"] = Printable(command.device.host);
    (*json)["file"] = Printable(command.file);
    const auto [package, report] =
        LoadPackage({command.file, command.force, command.trust, command.device.json}, layout, json);
    OpenDevice device =
        command.wait ? WaitForDevice(command, listener, record, json)
                     : ConnectAndLogin(command.device, command.times, listener, record, json);
    UpgradeSession& session = device.session;
    session.Identify();
    if (!command.forceIdentity) {
        CheckIdentity(report.ic, report.sensor, record->device);
    }
    if (!command.follow) {
        session.Upload(package);
        return ExitCode::kDone;
    }
    const FollowTarget target = TargetToFollow(command, device, listener, record);
    const std::optional<DeviceLock> lock =
        target.mac.empty() ? std::nullopt : std::make_optional<DeviceLock>(target.mac);
    session.Upload(package);
    return Follow(target, session.Fd(), command.times, listener, record);
}

// In what state an upgrade leaves the device that ends where the record ends.
std::string StateLeft(const UpgradeRecord& record) {
    if (record.accepted) {
        return "the device had accepted the package and goes on by itself";
    }
    switch (record.sent) {
        case Sent::kNothing:
            return "nothing of the package was sent; the device stays as it is";
        case Sent::kPart:
            return "the device holds a part of the package, flashes nothing, and waits in "
                   "recovery mode for a new upgrade";
        case Sent::kAll:
            break;
    }
    return "the whole package was sent; if the device finds it right it flashes and restarts by "
           "itself, so do not switch it off";
}

}  // namespace

ExitCode RunInfo(const DeviceCommand& command, const UpgradeTimes& times, Json* json) {
    (*json)["host"] = Printable(command.host);
    const Target target = Locate(command, json);
    Connected connected = ConnectAny(target.host, target.port, times.connect);
    ProtocolClient client(std::move(connected.fd), times.reply);
    InfoReport report;
    report.address = connected.endpoint.text;
    (*json)["address"] = report.address;
    report.sessionBefore = client.Login();
    report.session = client.Heartbeat();
    report.serial = client.SerialNumber();
    report.device = client.Info();
    json->update(InfoJson(report));
    if (!command.json) {
        PrintInfo(std::cout, report);
    }
    return ExitCode::kDone;
}

ExitCode RunUpgrade(const UpgradeCommand& command, const Layout& layout, Json* json) {
    ConsoleListener listener(command.device.json ? stderr : stdout);
    UpgradeRecord record;
    try {
        const ExitCode code = DoUpgrade(command, layout, &listener, &record, json);
        const std::string result = command.follow
                                       ? OutcomeText(code)
                                       : "accepted by the device; not followed further";
        listener.Line("result: " + result);
        json->update(UpgradeJson(record, result));
        return code;
    } catch (const ToolError& error) {
        std::string result = error.what();
        if (record.accepted || error.Code() == ExitCode::kInterrupted) {
            result += "; " + StateLeft(record);
        }
        listener.Clear();
        json->update(UpgradeJson(record, result));
        throw ToolError(error.Code(), result);
    }
}

ExitCode RunDiscover(const DiscoverCommand& command, Json* json) {
    if (!command.request.host.empty()) {
        (*json)["host"] = Printable(command.request.host);
    }
    const DiscoveryResult result = Discover(command.request, nullptr);
    json->update(DiscoveryJson(result));
    if (!command.json) {
        PrintDiscovery(std::cout, result);
    }
    return result.devices.empty() ? ExitCode::kUnreachable : ExitCode::kDone;
}

}  // namespace kvtool
