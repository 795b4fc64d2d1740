#include "tools/device/device_json.h"

namespace kvtool {

namespace {

Json DeviceJson(const DeviceInfo& device) {
    return {{"name", Printable(device.name)},   {"id", Hex(device.id.data(), device.id.size())},
            {"model", Printable(device.model)}, {"firmware", Printable(device.firmware)},
            {"ic", Printable(device.ic)},       {"sensor", Printable(device.sensor)}};
}

}  // namespace

Json InfoJson(const InfoReport& report) {
    return {{"address", report.address},
            {"session", report.session},
            {"session_before_login", report.sessionBefore},
            {"serial", Hex(report.serial.data(), report.serial.size())},
            {"device", DeviceJson(report.device)}};
}

Json FoundJson(const FoundDevice& device) {
    const DiscoveryReply& reply = device.reply;
    return {{"mac", reply.mac},
            {"kind", Printable(reply.kind)},
            {"type", Printable(reply.deviceType)},
            {"firmware", Printable(reply.firmware)},
            {"address", reply.ip},
            {"senders", device.senders},
            {"state", device.State()},
            {"netmask", reply.netmask},
            {"gateway", reply.gateway},
            {"dns", reply.dns},
            {"p2p_serial", Printable(reply.p2pSerial)},
            {"account", Printable(reply.account)},
            {"command_port", reply.commandPort},
            {"rtsp_port", reply.rtspPort},
            {"http_port", reply.httpPort}};
}

Json DiscoveryJson(const DiscoveryResult& result, const Matcher& matcher) {
    Json devices = Json::array();
    for (const FoundDevice& device : result.devices) {
        if (matcher.Matches(device)) {
            devices.push_back(FoundJson(device));
        }
    }
    const size_t others = result.devices.size() - devices.size();
    Json malformed = Json::array();
    for (const auto& [what, count] : result.malformed) {
        malformed.push_back({{"what", what}, {"count", count}});
    }
    return {{"devices", std::move(devices)},  {"not_matching", others},
            {"malformed", malformed},         {"problems", result.problems},
            {"conflicts", Conflicts(result)}, {"searches_sent", result.sent}};
}

Json UpgradeJson(const UpgradeRecord& record, const std::string& result) {
    Json phases = Json::array();
    for (const Phase& phase : record.phases) {
        phases.push_back({{"name", phase.name}, {"seconds", phase.seconds}});
    }
    Json json = {{"result", result},
                 {"accepted", record.accepted},
                 {"session", record.session},
                 {"bytes_total", record.total},
                 {"bytes_acknowledged", record.acknowledged},
                 {"phases", phases},
                 {"observed", record.observed},
                 {"assumed", record.assumed}};
    if (!record.address.empty()) {
        json["address"] = record.address;
    }
    if (!record.mac.empty()) {
        json["mac"] = record.mac;
    }
    if (record.identified) {
        json["device"] = DeviceJson(record.device);
    }
    return json;
}

}  // namespace kvtool
