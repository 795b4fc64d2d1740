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
    std::optional<DiscoveryReply> reply;  // if kvtool searched for the device
};

// Where to connect. Searches for a device that is given by its MAC address. Takes the sender's
// address, not the one in the reply, because the sender's address is known to work.
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
                        "no device with the MAC address " + *mac +
                            " answers a search; 'kvtool discover' shows those that do");
    }
    (*json)["mac"] = *mac;
    (*json)["address"] = device->senders.front();
    return {device->senders.front(), command.port.value_or(device->reply.commandPort),
            device->reply};
}

// An upgrade's connection, and the device's reply to a search, if there was a search.
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

// Tries until a login succeeds or time is up. Prints why an attempt failed, unless the one before
// failed for the same reason.
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
        // Only the successful attempt belongs in the record.
        *record = UpgradeRecord{};
        WaitUntil(Clock::now() + kRetryPause);
    }
}

// What is needed to follow the device. A device that was not searched for is asked now: after the
// acceptance it may be too late.
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
            "the device answers no search; if its address changes, kvtool cannot find it again");
    }
    target.alivePort = command.alivePort.value_or(target.alivePort);
    if (target.alivePort == 0) {
        listener->Line(
            "the port of its application is not known; without --expect-port kvtool cannot see "
            "that it is alive");
    }
    return target;
}

ExitCode DoUpgrade(const UpgradeCommand& command, const Layout& layout, ConsoleListener* listener,
                   UpgradeRecord* record, Json* json) {
    (*json)["host"] = Printable(command.device.host);
    (*json)["file"] = Printable(command.file);
    const auto [package, report] = LoadPackage(
        {command.file, command.force, command.trust, command.device.json}, layout, json);
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

// The state of the device after an upgrade that ended where the record ends.
std::string StateLeft(const UpgradeRecord& record) {
    if (record.accepted) {
        return "the device has accepted the package and continues by itself; do not switch it off";
    }
    switch (record.sent) {
        case Sent::kNothing:
            return "no part of the package was sent; the device stays as it is";
        case Sent::kPart:
            return "the device has only part of the package and flashes nothing; repeat the "
                   "upgrade once it answers in recovery mode";
        case Sent::kAll:
            break;
    }
    return "the whole package was sent; a device that accepts it flashes and restarts by itself, "
           "so do not switch it off";
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
                                       : "accepted by the device; kvtool does not follow it";
        listener.Line("result: " + result);
        json->update(UpgradeJson(record, result));
        return code;
    } catch (const ToolError& error) {
        std::string result = error.what();
        if (record.accepted || error.Code() == ExitCode::kInterrupted ||
            error.Code() == ExitCode::kLost) {
            result += "; " + StateLeft(record);
        }
        listener.Clear();
        json->update(UpgradeJson(record, result));
        throw ToolError(error.Code(), result);
    }
}

}  // namespace kvtool
