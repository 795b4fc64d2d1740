// kvtool against a device that answers as the input says, on a clock that only waits move: queries,
// a probe, a whole upgrade.
#include <poll.h>

#include <algorithm>

#include "tests/fuzz/tool.h"
#include "tests/support/wire.h"
#include "tools/device/device_json.h"
#include "tools/device/probe.h"

using namespace fuzz;
using namespace kvtool;
using kv_test::DeviceRecord;
using kv_test::WordAt;

namespace {

// What the device does; the input decides.
struct Device {
    Input& in = *g_world.in;
    std::string outgoing;  // on its way to the tool
    std::string spoken;    // all of that so far
    std::string received;  // since the upgrade request
    bool upgrading = false;
    bool closed = false;
    int64_t askedMs = g_nowMs;  // when the last request came

    void Send(std::string reply) {
        for (size_t edits = in.Below(8) / 5; edits > 0; --edits) {
            reply[in.Byte() % reply.size()] = static_cast<char>(in.Byte());
        }
        const uint8_t fate = in.Byte();
        reply = fate > 245 ? in.Piece() : reply.substr(0, fate > 235 ? fate % 32 : reply.npos);
        outgoing += reply;
        spoken += reply;
    }

    void Take(const std::string& bytes) {
        askedMs = g_nowMs;
        received += upgrading ? bytes : "";
        const uint32_t command = WordAt(bytes, 4) % 65536;
        if (!upgrading && command != 0x2002) {
            const std::string payload = command == 0x0101   ? "ABCDEFGH"
                                        : command == 0x2003 ? DeviceRecord("ABCDEFGH")
                                                            : "";
            Send(kv_test::ReplyHeader(static_cast<uint16_t>(command), 0, 7,
                                      static_cast<uint32_t>(payload.size())) +
                 payload);
        }
        upgrading = upgrading || command == 0x2002;
    }

    std::string Receive(size_t room) {
        const uint8_t fate = in.Byte();
        const std::string part =
            outgoing.substr(0, fate < 128 ? room : std::min(room, fate - 127UL));
        outgoing.erase(0, part.size());
        return part;
    }

    int Ready(int events) {
        Require(upgrading || g_nowMs - askedMs <= 5001);
        const uint8_t what = in.Byte();
        closed = closed || what == 200;
        if (upgrading && what > 200) {
            Send(kv_test::ReplyHeader(0x2002,
                                      what > 235   ? 0xFFFF
                                      : what > 230 ? in.Short()
                                                   : 0,
                                      7));
        }
        return events &
               ((outgoing.empty() && !closed ? 0 : POLLIN) | (what % 4 == 3 ? 0 : POLLOUT));
    }
};

class Quiet : public UpgradeListener {
  public:
    void Line(const std::string& text) override { RequireSafe(text); }
    void Progress(const UploadProgress& progress) override {
        Require(progress.acknowledged <= progress.total && progress.silent <= 26);
    }
};

void Upgrade(const Device& device, const char* ic, size_t size) {
    const Bytes package(size, 'p');
    UpgradeRecord record;
    Quiet listener;
    UpgradeSession session(UpgradeTimes(), &listener, &record);
    const bool done = Try([&] {
        session.Connect("192.0.2.7", 80);
        session.Login();
        session.Identify();
        CheckIdentity(ic, "38QX", record.device);
        session.Upload(package);
    });
    const auto trailer = MakeTrailer(package);
    const std::string all = std::string(size, 'p') + std::string(trailer.begin(), trailer.end());
    Require(done == record.accepted && (!done || device.received == all));
    // The start of the reply that accepts.
    Require(!done || device.spoken.find(std::string("\0\0\1\1\2\x20\0\0", 8)) != all.npos);
    Require(record.sent != Sent::kNothing || !device.upgrading);
    (void)JsonLine(UpgradeJson(record, ""));
}

void Query() {
    (void)Try([] {
        ProtocolClient client(UniqueFd(kFd), Millis(5000));
        InfoReport report;
        report.sessionBefore = client.Login();
        report.session = client.Heartbeat();
        report.serial = client.SerialNumber();
        report.device = client.Info();
        (void)JsonLine(InfoJson(report));
    });
}

}  // namespace

extern "C" int __wrap_getsockopt(int, int, int, void* value, socklen_t*) {
    *static_cast<int*>(value) = Refuses(4) ? ECONNREFUSED : 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    Device device;
    g_world.send = [&](const std::string& bytes) { device.Take(bytes); };
    g_world.receive = [&](size_t room) { return device.Receive(room); };
    g_world.ready = [&](int events) { return device.Ready(events); };
    g_world.control = [&](unsigned long, void* unacknowledged) {
        *static_cast<int*>(unacknowledged) = std::max(0, scope.in.Byte() - 200) * 16;
        return 0;
    };
    const size_t door = scope.in.Below(4);
    if (door == 0) {
        Query();
    } else if (door == 1) {
        Endpoint endpoint;
        endpoint.text = "device";
        const std::string seen = Probe(endpoint, Endpoint(), Millis(1000), Millis(2000)).text;
        RequireSafe(seen);
        (void)LookAtPort(endpoint, 554, Endpoint(), Millis(1000));
    } else {
        const char* const ic = scope.in.Below(16) == 15 ? "other" : "PRT7K";
        Upgrade(device, ic, scope.in.Below(8) == 7 ? 70000 : scope.in.Short() % 9000);
    }
    return 0;
}
