#include "tools/cli/report.h"

#include <algorithm>
#include <iomanip>
#include <map>
#include <tuple>

#include "flash/kv_upgrade_package.h"
#include "tools/cli/terminal.h"
#include "tools/package/flash_time.h"

namespace kvtool {

namespace {

constexpr size_t kMostOfAKind = 10;
constexpr size_t kMostEntries = 64;

std::string OrDash(const std::string& text) {
    return text.empty() ? "-" : Printable(text);
}

void Row(std::ostream& out, const char* name, const std::string& value) {
    out << "  " << std::left << std::setw(18) << name << value << '\n';
}

std::string HexWord(uint32_t value) {
    uint8_t bytes[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                        static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return "0x" + Hex(bytes, sizeof bytes);
}

std::string TargetText(const EntryReport& entry) {
    std::string text;
    for (const LayoutRow& row : entry.targets) {
        text += (text.empty() ? "" : ", ") + row.name + " (" + row.device +
                (row.IsBoot() ? " and the next two" : "") + ", " + SizeText(row.size) + ")";
    }
    return text.empty() ? "none" : text;
}

void PrintEntry(std::ostream& out, const EntryReport& entry) {
    out << "entry " << entry.index << ": " << OrDash(entry.name) << '\n';
    Row(out, "partition", TargetText(entry));
    Row(out, "offset", HexWord(entry.dataOffset));
    Row(out, "length", SizeText(entry.dataLen));
    Row(out, "check code",
        HexWord(entry.checkCode) + (entry.checkCode == kv::kEntryCheckCode ? "" : " (bad)"));
    Row(out, "MD5",
        OrDash(entry.md5) + (entry.inFile < entry.dataLen
                                 ? " of the " + SizeText(entry.inFile) + " in the file"
                                 : ""));
    Row(out, "written after it",
        SizeText(entry.behind) + (entry.behind > 0 && entry.behindBlank ? ", all 0xFF" : ""));
}

void PrintFlashTime(std::ostream& out, const FlashTime& time) {
    if (time.seconds == 0) {
        return;
    }
    out << "power while the device writes (typical flash chip; from the first erasure on)\n";
    Row(out, "writing takes", SecondsText(time.seconds));
    const size_t shown = std::min(time.windows.size(), kMostEntries);
    for (size_t i = 0; i < shown; ++i) {
        Row(out, time.windows[i].partition.c_str(), PowerWindowText(time.windows[i]));
    }
    if (shown < time.windows.size()) {
        out << "… and " << time.windows.size() - shown << " more times\n";
    }
}

// Senders other than the address in the device's reply.
std::vector<std::string> OtherSenders(const FoundDevice& device) {
    std::vector<std::string> others;
    for (const std::string& sender : device.senders) {
        if (sender != device.reply.ip) {
            others.push_back(sender);
        }
    }
    return others;
}

void PrintDevice(std::ostream& out, const FoundDevice& device) {
    const DiscoveryReply& reply = device.reply;
    out << "device " << OrDash(reply.mac) << '\n';
    Row(out, "type", OrDash(reply.kind) + " " + OrDash(reply.deviceType));
    Row(out, "firmware", OrDash(reply.firmware));
    Row(out, "address", OrDash(reply.ip));
    for (const std::string& sender : OtherSenders(device)) {
        Row(out, "", "(but answered from " + sender + ")");
    }
    Row(out, "netmask", OrDash(reply.netmask));
    Row(out, "gateway", OrDash(reply.gateway));
    Row(out, "DNS server", OrDash(reply.dns));
    Row(out, "ports",
        "commands " + std::to_string(reply.commandPort) + ", RTSP " +
            std::to_string(reply.rtspPort) + ", HTTP " + std::to_string(reply.httpPort));
    Row(out, "P2P serial number", OrDash(reply.p2pSerial));
    Row(out, "account", OrDash(reply.account));
}

}  // namespace

void PrintFindings(std::ostream& out, const PackageReport& report) {
    std::map<std::string, size_t> found;
    for (const Finding& finding : report.findings) {
        if (++found[finding.kind] > kMostOfAKind) {
            continue;
        }
        out << SeverityName(finding.severity) << ": ";
        if (finding.entry >= 0) {
            out << "entry " << finding.entry << ": ";
        }
        out << finding.text << '\n';
    }
    for (const auto& [kind, count] : found) {
        if (count > kMostOfAKind) {
            out << "… and " << count - kMostOfAKind << " more like it (" << kind << ")\n";
        }
    }
}

void PrintPackage(std::ostream& out, const PackageReport& report) {
    out << "package\n";
    Row(out, "size", SizeText(report.size));
    Row(out, "MD5", report.md5);
    if (report.headerComplete) {
        Row(out, "chip type", OrDash(report.ic));
        Row(out, "sensor type", OrDash(report.sensor));
        Row(out, "total data length", SizeText(report.totalLen));
        Row(out, "entries", std::to_string(report.fileNum));
    }
    const auto& entries = report.entries;
    const auto unreached = std::find_if(entries.begin(), entries.end(),
                                        [](const EntryReport& entry) { return !entry.reached; });
    const auto reached = static_cast<size_t>(unreached - entries.begin());
    const size_t shown = std::min(reached, kMostEntries);
    for (size_t i = 0; i < shown; ++i) {
        PrintEntry(out, entries[i]);
    }
    if (shown < reached) {
        out << "… and " << reached - shown << " more entries\n";
    }
    if (reached < entries.size()) {
        out << "entries from " << reached << " on: the device never reaches them\n";
    }
    PrintFlashTime(out, PredictFlashTime(report));
    PrintFindings(out, report);
    out << (report.Acceptable() ? "the device would install this package\n"
                                : "NOT fit for the device: see the errors above\n");
}

std::string SignatureText(const Signature& signature) {
    return "signed by key " + signature.keyId + ": " + Printable(signature.comment) +
           (signature.form == SignatureForm::kEmbedded ? "" : " (detached signature)");
}

void PrintInfo(std::ostream& out, const InfoReport& report) {
    const DeviceInfo& device = report.device;
    out << "device at " << report.address << '\n';
    Row(out, "name", OrDash(device.name));
    Row(out, "model", OrDash(device.model));
    Row(out, "firmware", OrDash(device.firmware));
    Row(out, "chip type", OrDash(device.ic));
    Row(out, "sensor type", OrDash(device.sensor));
    Row(out, "serial number", Hex(report.serial.data(), report.serial.size(), " "));
    Row(out, "", "(random, new at each start of the device's services)");
    Row(out, "device ID", Hex(device.id.data(), device.id.size(), " "));
    Row(out, "session",
        std::to_string(report.session) +
            (report.sessionBefore == report.session ? "" : " (created by this login)"));
}

std::vector<std::string> DeviceTable(std::vector<DeviceRow> rows, size_t width) {
    if (rows.empty()) {
        return {};
    }
    std::stable_sort(rows.begin(), rows.end(), [](const DeviceRow& a, const DeviceRow& b) {
        return std::tie(a.device.reply.mac, a.device.reply.ip) <
               std::tie(b.device.reply.mac, b.device.reply.ip);
    });
    constexpr size_t kFirmware = 2;
    std::vector<std::vector<std::string>> cells = {{"MAC", "ADDRESS", "FIRMWARE", "STATE"}};
    for (const DeviceRow& row : rows) {
        const DiscoveryReply& reply = row.device.reply;
        cells.push_back(
            {OrDash(reply.mac), OrDash(row.device.Address()), OrDash(reply.firmware), row.state});
    }
    return TableLines(cells, kFirmware, width);
}

void PrintDiscovery(std::ostream& out, const DiscoveryResult& result, const DiscoveryStyle& style) {
    std::vector<DeviceRow> rows;
    for (const FoundDevice& device : result.devices) {
        if (style.matcher.Matches(device)) {
            rows.push_back({device, device.State()});
        }
    }
    if (style.verbose) {
        for (const DeviceRow& row : rows) {
            PrintDevice(out, row.device);
        }
    } else {
        for (const std::string& line : DeviceTable(rows, style.width)) {
            out << line << '\n';
        }
    }
    for (const auto& [what, count] : result.malformed) {
        out << "malformed reply from " << what << " (" << count << " times)\n";
    }
    for (const std::string& problem : result.problems) {
        out << "search not sent on " << problem << '\n';
    }
    for (const std::string& conflict : Conflicts(result)) {
        out << "warning: " << conflict << '\n';
    }
    out << rows.size() << " found";
    if (rows.size() < result.devices.size()) {
        out << ", " << result.devices.size() - rows.size() << " more do not match";
    }
    out << '\n';
}

}  // namespace kvtool
