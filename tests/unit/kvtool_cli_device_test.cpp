// kvtool as a program that talks to scripted devices: exit codes, output and interrupts.
#include <memory>

#include "tests/support/fake_device.h"
#include "tests/support/kvtool_program.h"

namespace {

using namespace kv_test;

class KvtoolWithDevice : public ToolTest {};

TEST_F(KvtoolWithDevice, InfoAndUpgrade) {
    fake::Device device(fake::Script{});
    const std::string port = std::to_string(device.Port());
    nlohmann::json json = JsonOf({"info", "--json", "--port", port, "127.0.0.1"}, 0);
    EXPECT_EQ(json["serial"], "1122334455667788");
    EXPECT_EQ(json["session_before_login"], 0);
    EXPECT_EQ(json["session"], 0x5A000001);

    Arguments upgrade = {"upgrade", "--port",    port,         "--no-follow",
                         "--json",  "127.0.0.1", Path("other")};
    EXPECT_EQ(JsonOf(upgrade, 3)["accepted"], false);
    EXPECT_TRUE(device.UpgradeRequest().empty());
    upgrade.back() = Path("good");
    json = JsonOf(upgrade, 0);
    EXPECT_EQ(json["accepted"], true);
    EXPECT_EQ(json["bytes_acknowledged"], Read("good").size() + 37);
    const fake::Bytes stream = device.Stream();
    EXPECT_EQ(std::string(stream.begin(), stream.end() - 37), Read("good"));
}

// The identity that the device reports decides; --force does not override it.
TEST_F(KvtoolWithDevice, UpgradeComparesWithWhatTheDeviceSays) {
    fake::Script script;
    script.ic = "OTHER";
    fake::Device device(script);
    Arguments upgrade = {"upgrade",     "--port",  std::to_string(device.Port()),
                         "--no-follow", "--force", "127.0.0.1",
                         Path("good")};
    EXPECT_EQ(RunTool(upgrade), 3);
    EXPECT_TRUE(device.UpgradeRequest().empty());
    upgrade.back() = Path("other");
    upgrade[4] = "--no-follow";
    EXPECT_EQ(RunTool(upgrade), 0) << "a package for this device needs no force";
    upgrade.back() = Path("good");
    upgrade[4] = "--force-identity";
    EXPECT_EQ(RunTool(upgrade), 0);
}

TEST_F(KvtoolWithDevice, InterruptEndsAtOnceAndSaysHowTheDeviceIsLeft) {
    struct Case {
        const char* signal;
        bool inUpload;
        const char* left;
    };
    const Case cases[] = {{"INT", false, "stays as it is"},
                          {"INT", true, "flashes nothing"},
                          {"TERM", true, "flashes nothing"}};
    for (const Case& c : cases) {
        (void)unlink("/tmp/go");
        fake::Script script;
        script.stopAfter = 1000;
        if (!c.inUpload) {
            // Without this answer the tool waits and sends no package.
            script.edit = [](uint16_t command, const fake::Bytes& reply) {
                return command == 0x2003 ? fake::Bytes() : reply;
            };
        }
        fake::Device device(script);
        std::thread goes([&] {
            EXPECT_TRUE(WaitUntil([&] { return !c.inUpload || !device.UpgradeRequest().empty(); }));
            WriteFile("/tmp/go", "");
        });
        EXPECT_EQ(RunTool({"upgrade", "--port", std::to_string(device.Port()), "--reply-timeout",
                           "60", "127.0.0.1", Path("good")},
                          "login:",
                          std::string("until [ -e /tmp/go ]; do sleep 0.01; done; kill -") +
                              c.signal + " $tool"),
                  130);
        goes.join();
        EXPECT_TRUE(Contains(ReadFile("/tmp/tool.err"), c.left)) << ReadFile("/tmp/tool.err");
    }
}

TEST_F(KvtoolWithDevice, ConformChecksItsPackageAndKeepsItsTranscript) {
    fake::Device device(fake::Script{});
    const auto conform = [&](const Arguments& more) {
        Arguments arguments = {"conform", "--port", std::to_string(device.Port()), "127.0.0.1"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    };
    WriteFile(Path("layout"), "");
    for (const char* unfit : {"layout", "app"}) {
        EXPECT_EQ(RunTool(conform({"--destructive", "--package", Path(unfit)})), 3) << unfit;
    }
    EXPECT_TRUE(device.Chunks().empty());
    EXPECT_EQ(RunTool(conform({"--transcript", Path("again")}), "^ok", "kill -INT $tool"), 130);
    EXPECT_TRUE(Contains(Read("again"), "# login"));
    EXPECT_TRUE(Contains(ReadFile("/tmp/tool.out"), "rules kept"));
}

// The responder's two devices name one address.
TEST_F(KvtoolWithDevice, DiscoverListsAndWatches) {
    const std::string firmware = "PRT7K_38QX_QJT_V1.0.0.241127_R1";
    const auto reply = [](const char* mac) {
        return ExpectedReply({"10.7.0.1", "255.255.255.0", "", "", mac});
    };
    const fake::Responder responder(
        "127.0.0.3", 0, std::vector<Bytes>{reply("02:00:5E:00:00:02"), reply("02:00:5E:00:00:01")});
    const Arguments discover = {"discover", "--port", std::to_string(responder.Port()),
                                "127.0.0.2"};
    const auto run = [&discover](Arguments more, std::string* output) {
        more.insert(more.begin(), discover.begin(), discover.end());
        return RunTool(more, output);
    };
    std::string output;
    const std::string both =
        "MAC                ADDRESS    FIRMWARE                         STATE\n"
        "02:00:5E:00:00:01  127.0.0.4  " +
        firmware +
        "  conflict\n"
        "02:00:5E:00:00:02  127.0.0.3  " +
        firmware +
        "  conflict\n"
        "warning: address 10.7.0.1 belongs to 2 devices, with the MAC addresses "
        "02:00:5E:00:00:01, 02:00:5E:00:00:02\n"
        "2 found\n";
    // Each search lasts its whole time. On a busy machine the answers may come after that.
    EXPECT_TRUE(WaitUntil([&] {
        return run({"--timeout", "0.3"}, &output) == 0 && output == both;
    })) << output;
    EXPECT_TRUE(WaitUntil([&] {
        return run({"--timeout", "0.3", "--match", "mac=*:03"}, &output) == 4 &&
               Contains("\n" + output, "\n0 found, 2 more do not match\n");
    })) << output;
    EXPECT_TRUE(WaitUntil([&] {
        return run({"--timeout", "0.3", "-v"}, &output) == 0 &&
               Contains(output, "P2P serial number -");
    })) << output;

    Arguments watch = discover;
    watch.insert(watch.end(), {"--watch", "--timeout", "2", "--match", "mac=*:01", "--json"});
    EXPECT_EQ(RunTool(watch, "warning", "kill -INT $tool"), 0);
    std::istringstream lines(ReadFile("/tmp/tool.out"));
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(lines, line);) {
        objects.push_back(nlohmann::json::parse(line));
    }
    ASSERT_EQ(objects.size(), 3U);
    EXPECT_EQ(objects[0].at("event"), "appeared");
    EXPECT_EQ(objects[0].at("device").at("mac"), "02:00:5E:00:00:01");
    EXPECT_EQ(objects[0].at("device").at("state"), "conflict");
    EXPECT_EQ(objects[1].at("event"), "warning");
    EXPECT_EQ(objects[2].at("exit_code"), 0);
}

TEST_F(KvtoolWithDevice, WaitsForTheDeviceToAppear) {
    uint16_t port = 0;
    { port = fake::Device(fake::Script{}).Port(); }
    const Arguments upgrade = {"upgrade",     "--wait",    "--port",    std::to_string(port),
                               "--no-follow", "127.0.0.1", Path("good")};
    std::unique_ptr<fake::Device> device;
    std::thread appears([port, &device] {
        EXPECT_TRUE(WaitUntil([] { return Contains(ReadFile("/tmp/tool.out"), "not yet:"); }));
        device = std::make_unique<fake::Device>(fake::Script{}, port);
    });
    EXPECT_EQ(RunTool(upgrade, "not yet:", ":"), 0);
    appears.join();
    for (const Arguments& wait : {Arguments{"--wait=1"}, {"--wait", "0.5"}}) {
        Arguments nobody = {"upgrade", "--port", "1"};
        nobody.insert(nobody.end(), wait.begin(), wait.end());
        nobody.insert(nobody.end(), {"127.0.0.1", Path("good")});
        EXPECT_EQ(RunTool(nobody), 4);
    }
}

}  // namespace
