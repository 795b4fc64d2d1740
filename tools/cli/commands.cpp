#include "tools/cli/commands.h"

#include <iostream>

#include "common/kv_platform.h"
#include "tools/base/files.h"
#include "tools/cli/console_listener.h"
#include "tools/cli/report.h"
#include "tools/device/follow.h"
#include "tools/package/builder.h"
#include "tools/package/check.h"

namespace kvtool {

namespace {

constexpr Millis kSearchTime{3000};
constexpr Millis kRetryPause{1000};
constexpr Millis kWaitingTry{3000};

struct Target {
    std::string host;
    uint16_t port;
};

// Where to connect to; searches for the device when it is given by its MAC address. The sender's
// address is taken rather than the one in the reply: it is the one that was seen to work.
Target Locate(const DeviceCommand& command) {
    if (!IsMacAddress(command.host)) {
        return {command.host, command.port.value_or(kv::kProtocolPort)};
    }
    DiscoveryRequest request;
    request.port = command.discoveryPort;
    request.timeout = kSearchTime;
    const std::string mac = UpperCase(command.host);
    const DiscoveryResult result =
        Discover(request, [&mac](const FoundDevice& device) { return device.reply.mac == mac; });
    const FoundDevice* device = FindMac(result, mac);
    if (device == nullptr) {
        throw ToolError(ExitCode::kUnreachable,
                        "no device with the MAC address " + mac + " answers a search");
    }
    return {device->senders.front(), command.port.value_or(device->reply.commandPort)};
}

void ConnectAndLogin(UpgradeSession* session, const DeviceCommand& command) {
    const Target target = Locate(command);
    session->Connect(target.host, target.port);
    session->Login();
}

bool MayAppearLater(ExitCode code) {
    return code == ExitCode::kUnreachable || code == ExitCode::kNoReply ||
           code == ExitCode::kLost || code == ExitCode::kBadReply;
}

// Tries until the device lets itself be logged in to or the time is over. Says each new reason
// once.
UpgradeSession WaitForDevice(const UpgradeCommand& command, UpgradeListener* listener,
                             UpgradeRecord* record) {
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + std::chrono::seconds(*command.waitSeconds);
    UpgradeTimes quick = command.times;
    quick.connect = std::min(quick.connect, kWaitingTry);
    quick.reply = std::min(quick.reply, kWaitingTry);
    std::string last;
    listener->Line("waiting for " + command.device.host);
    for (;;) {
        try {
            UpgradeSession session(quick, listener, record);
            ConnectAndLogin(&session, command.device);
            record->phases.insert(record->phases.begin(), {"wait", SecondsSince(start)});
            return session;
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

UpgradeSession OpenSession(const UpgradeCommand& command, UpgradeListener* listener,
                           UpgradeRecord* record) {
    if (command.waitSeconds) {
        return WaitForDevice(command, listener, record);
    }
    UpgradeSession session(command.times, listener, record);
    ConnectAndLogin(&session, command.device);
    return session;
}

Bytes ReadPackage(const UpgradeCommand& command, const Layout& layout, std::ostream& out) {
    Bytes package = ReadWholeFile(command.file);
    const PackageReport report = CheckPackage(package, layout, StandardIdentity());
    PrintFindings(out, report);
    if (package.empty() || (!report.Acceptable() && !command.force)) {
        throw ToolError(ExitCode::kRefused, command.file +
                                                " is not fit for the device; nothing was "
                                                "sent");
    }
    return package;
}

// The device compares with its own identity, which need not be the one this tool is built for.
void CheckIdentity(const UpgradeCommand& command, const Layout& layout, const Bytes& package,
                   const UpgradeRecord& record) {
    const Identity device{record.device.ic, record.device.sensor};
    const PackageReport report = CheckPackage(package, layout, device);
    if ((report.ic != device.ic || report.sensor != device.sensor) && !command.force) {
        throw ToolError(ExitCode::kRefused, "the package is for chip '" + Printable(report.ic) +
                                                "' and sensor '" + Printable(report.sensor) +
                                                "', the device has '" + Printable(device.ic) +
                                                "' and '" + Printable(device.sensor) +
                                                "'; nothing was sent");
    }
}

std::string ResultText(ExitCode code, bool follow) {
    if (!follow) {
        return "accepted by the device; not followed further";
    }
    switch (code) {
        case ExitCode::kDone:
            return "accepted by the device; it no longer serves recovery mode";
        case ExitCode::kBackInRecovery:
            return "accepted by the device; it has restarted and is back in recovery mode";
        default:
            return "accepted by the device, but it was never seen to leave recovery mode";
    }
}

ExitCode DoUpgrade(const UpgradeCommand& command, const Layout& layout, ConsoleListener* listener,
                   UpgradeRecord* record) {
    const Bytes package = ReadPackage(command, layout, command.device.json ? std::cerr : std::cout);
    UpgradeSession session = OpenSession(command, listener, record);
    session.Identify();
    CheckIdentity(command, layout, package, *record);
    session.Upload(package);
    if (!command.follow) {
        return ExitCode::kDone;
    }
    return Follow(session.Peer(), session.Fd(), command.times, listener, record);
}

}  // namespace

ExitCode RunPack(const PackCommand& command, const Layout& layout) {
    BuildRequest request{command.ic, command.sensor, {}, layout, command.force};
    for (const std::string& image : command.images) {
        const size_t equals = image.find('=');
        if (equals == std::string::npos) {
            throw ToolError(ExitCode::kUsage, "not NAME=IMAGE: '" + Printable(image) + "'");
        }
        request.images.push_back(
            {image.substr(0, equals), ReadWholeFile(image.substr(equals + 1))});
    }
    const BuildResult result = BuildPackage(request);
    for (const std::string& warning : result.warnings) {
        std::cerr << "warning: " << warning << '\n';
    }
    if (command.ic != kv::kIcType || command.sensor != kv::kSensorType) {
        std::cerr << "warning: a device of chip " << kv::kIcType << " and sensor "
                  << kv::kSensorType << " will refuse this package\n";
    }
    WriteWholeFile(command.output, result.bytes);
    std::cout << command.output << ": " << SizeText(result.bytes.size()) << ", MD5 "
              << Md5Hex(result.bytes.data(), result.bytes.size()) << '\n';
    return ExitCode::kDone;
}

ExitCode RunInspect(const std::string& file, const Layout& layout, bool json) {
    const PackageReport report = CheckPackage(ReadWholeFile(file), layout, StandardIdentity());
    if (json) {
        PrintJson(std::cout, PackageJson(report));
    } else {
        PrintPackage(std::cout, report);
    }
    return report.Acceptable() ? ExitCode::kDone : ExitCode::kRefused;
}

ExitCode RunInfo(const DeviceCommand& command, const UpgradeTimes& times) {
    const Target target = Locate(command);
    Connected connected = ConnectAny(target.host, target.port, times.connect);
    ProtocolClient client(std::move(connected.fd), times.reply);
    InfoReport report;
    report.address = connected.endpoint.text;
    report.sessionBefore = client.Login();
    report.session = client.Heartbeat();
    report.serial = client.SerialNumber();
    report.device = client.Info();
    if (command.json) {
        PrintJson(std::cout, InfoJson(report));
    } else {
        PrintInfo(std::cout, report);
    }
    return ExitCode::kDone;
}

ExitCode RunUpgrade(const UpgradeCommand& command, const Layout& layout) {
    ConsoleListener listener(command.device.json ? stderr : stdout);
    UpgradeRecord record;
    const auto finish = [&](ExitCode code, const std::string& result) {
        listener.Clear();
        if (command.device.json) {
            PrintJson(std::cout, UpgradeJson(record, code, result));
        }
    };
    try {
        const ExitCode code = DoUpgrade(command, layout, &listener, &record);
        const std::string result = ResultText(code, command.follow);
        listener.Line("result: " + result);
        finish(code, result);
        return code;
    } catch (const ToolError& error) {
        std::string result = error.what();
        if (record.accepted) {
            result += "; the device had accepted the package and goes on by itself";
        }
        finish(error.Code(), result);
        throw ToolError(error.Code(), result);
    }
}

ExitCode RunDiscover(const DiscoveryRequest& request, bool json) {
    const DiscoveryResult result = Discover(request, nullptr);
    if (json) {
        PrintJson(std::cout, DiscoveryJson(result));
    } else {
        PrintDiscovery(std::cout, result);
    }
    return result.devices.empty() ? ExitCode::kUnreachable : ExitCode::kDone;
}

}  // namespace kvtool
