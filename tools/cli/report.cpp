#include "tools/cli/report.h"

#include <iomanip>

#include "flash/kv_upgrade_package.h"

namespace kvtool {

namespace {

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
                (row.IsBoot() ? " and the two behind it" : "") + ", " + SizeText(row.size) + ")";
    }
    return text.empty() ? "none" : text;
}

void PrintEntry(std::ostream& out, const EntryReport& entry) {
    out << "entry " << entry.index << ": " << OrDash(entry.name)
        << (entry.reached ? "" : " (never reached)") << '\n';
    Row(out, "partition", TargetText(entry));
    Row(out, "offset", HexWord(entry.dataOffset));
    Row(out, "length", SizeText(entry.dataLen));
    Row(out, "check code",
        HexWord(entry.checkCode) + (entry.checkCode == kv::kEntryCheckCode ? "" : " (bad)"));
    Row(out, "MD5",
        entry.md5 + (entry.inFile < entry.dataLen
                         ? " of the " + SizeText(entry.inFile) + " in the file"
                         : ""));
    Row(out, "written behind",
        SizeText(entry.behind) + (entry.behind > 0 && entry.behindBlank ? ", all 0xFF" : ""));
}

Json EntryJson(const EntryReport& entry) {
    Json partitions = Json::array();
    for (const LayoutRow& row : entry.targets) {
        partitions.push_back({{"name", row.name}, {"device", row.device}, {"size", row.size}});
    }
    return {{"index", entry.index},
            {"name", Printable(entry.name)},
            {"partitions", partitions},
            {"offset", entry.dataOffset},
            {"length", entry.dataLen},
            {"in_file", entry.inFile},
            {"check_code", entry.checkCode},
            {"reached", entry.reached},
            {"md5", entry.md5},
            {"written_behind", entry.behind},
            {"written_behind_blank", entry.behindBlank}};
}

Json DeviceJson(const DeviceInfo& device) {
    return {{"name", Printable(device.name)},   {"id", Hex(device.id.data(), device.id.size())},
            {"model", Printable(device.model)}, {"firmware", Printable(device.firmware)},
            {"ic", Printable(device.ic)},       {"sensor", Printable(device.sensor)}};
}

// Senders other than the address that the device tells of itself.
std::vector<std::string> OtherSenders(const FoundDevice& device) {
    std::vector<std::string> others;
    for (const std::string& sender : device.senders) {
        if (sender != device.reply.ip) {
            others.push_back(sender);
        }
    }
    return others;
}

}  // namespace

void PrintJson(std::ostream& out, const Json& json) {
    out << json.dump() << '\n';
}

void PrintFindings(std::ostream& out, const PackageReport& report) {
    for (const Finding& finding : report.findings) {
        out << SeverityName(finding.severity) << ": ";
        if (finding.entry >= 0) {
            out << "entry " << finding.entry << ": ";
        }
        out << finding.text << '\n';
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
    for (const EntryReport& entry : report.entries) {
        PrintEntry(out, entry);
    }
    PrintFindings(out, report);
    out << (report.Acceptable() ? "the device would take this package as it is\n"
                                : "NOT fit for the device, see the errors above\n");
}

Json PackageJson(const PackageReport& report) {
    Json json = {{"size", report.size}, {"md5", report.md5}, {"acceptable", report.Acceptable()}};
    if (report.headerComplete) {
        json["ic"] = Printable(report.ic);
        json["sensor"] = Printable(report.sensor);
        json["total_length"] = report.totalLen;
        json["file_num"] = report.fileNum;
    }
    json["entries"] = Json::array();
    for (const EntryReport& entry : report.entries) {
        json["entries"].push_back(EntryJson(entry));
    }
    json["findings"] = Json::array();
    for (const Finding& finding : report.findings) {
        Json item = {{"severity", SeverityName(finding.severity)}, {"text", finding.text}};
        if (finding.entry >= 0) {
            item["entry"] = finding.entry;
        }
        json["findings"].push_back(std::move(item));
    }
    return json;
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
    Row(out, "", "(random, made by the device for this run of its services)");
    Row(out, "device ID", Hex(device.id.data(), device.id.size(), " "));
    Row(out, "session",
        std::to_string(report.session) +
            (report.sessionBefore == report.session ? "" : " (made by this login)"));
}

Json InfoJson(const InfoReport& report) {
    return {{"address", report.address},
            {"session", report.session},
            {"session_before_login", report.sessionBefore},
            {"serial", Hex(report.serial.data(), report.serial.size())},
            {"device", DeviceJson(report.device)}};
}

void PrintDiscovery(std::ostream& out, const DiscoveryResult& result) {
    for (const FoundDevice& device : result.devices) {
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
        Row(out, "account", OrDash(reply.account));
    }
    for (const auto& [what, count] : result.malformed) {
        out << "malformed reply from " << what << " (" << count << " times)\n";
    }
    for (const std::string& problem : result.problems) {
        out << "search not sent on " << problem << '\n';
    }
    out << result.devices.size() << " found\n";
}

Json DiscoveryJson(const DiscoveryResult& result) {
    Json devices = Json::array();
    for (const FoundDevice& device : result.devices) {
        const DiscoveryReply& reply = device.reply;
        devices.push_back({{"mac", reply.mac},
                           {"kind", Printable(reply.kind)},
                           {"type", Printable(reply.deviceType)},
                           {"firmware", Printable(reply.firmware)},
                           {"address", reply.ip},
                           {"senders", device.senders},
                           {"netmask", reply.netmask},
                           {"gateway", reply.gateway},
                           {"dns", reply.dns},
                           {"p2p_serial", Printable(reply.p2pSerial)},
                           {"account", Printable(reply.account)},
                           {"command_port", reply.commandPort},
                           {"rtsp_port", reply.rtspPort},
                           {"http_port", reply.httpPort}});
    }
    Json malformed = Json::array();
    for (const auto& [what, count] : result.malformed) {
        malformed.push_back({{"what", what}, {"count", count}});
    }
    return {{"devices", devices},
            {"malformed", malformed},
            {"problems", result.problems},
            {"searches_sent", result.sent}};
}

Json UpgradeJson(const UpgradeRecord& record, ExitCode code, const std::string& result) {
    Json phases = Json::array();
    for (const Phase& phase : record.phases) {
        phases.push_back({{"name", phase.name}, {"seconds", phase.seconds}});
    }
    Json json = {{"exit_code", static_cast<int>(code)},
                 {"result", result},
                 {"accepted", record.accepted},
                 {"address", record.address},
                 {"session", record.session},
                 {"bytes_total", record.total},
                 {"bytes_acknowledged", record.acknowledged},
                 {"phases", phases},
                 {"observed", record.observed},
                 {"assumed", record.assumed}};
    if (record.identified) {
        json["device"] = DeviceJson(record.device);
    }
    return json;
}

}  // namespace kvtool
