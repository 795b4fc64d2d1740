// Fake devices of a fleet: each has an address of its own, where it also answers searches.
#pragma once

#include "tests/support/discovery_client.h"
#include "tests/support/fake_device.h"

namespace fake {

constexpr uint16_t kRtsp = 554;  // the application's port that a search reply names

// "02:00:5E:00:00:01" for 1.
inline std::string MacOf(int number) {
    char text[18];
    (void)snprintf(text, sizeof text, "02:00:5E:00:%02X:%02X", number / 256 % 256, number % 256);
    return text;
}

// The device at 127.1.0.NUMBER. It is alive after an upgrade unless its script says otherwise.
struct Camera {
    explicit Camera(int number, Script script = Alive())
        : mac(MacOf(number)),
          address("127.1.0." + std::to_string(number)),
          device(std::move(script), 80, address),
          responder(address, 6789,
                    {kv_test::ExpectedReply({address, "255.255.255.0", "", "", mac})}, address) {}
    static Script Alive() {
        Script script;
        script.leaves = true;
        script.aliveAfter = milliseconds(100);
        script.alivePort = kRtsp;
        return script;
    }
    static Script BackInRecovery() {
        Script script;
        script.leaves = true;
        script.backAfter = milliseconds(50);
        return script;
    }

    std::string mac;
    std::string address;
    Device device;
    Responder responder;
};

}  // namespace fake
