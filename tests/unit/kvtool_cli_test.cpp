// kvtool: the program itself, its exit codes and what stands on its standard output.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/fake_device.h"

namespace {

using Arguments = std::vector<std::string>;

// A running kvtool with its standard output in a pipe; standard error goes to the test's own.
class Program {
  public:
    explicit Program(Arguments arguments) {
        arguments.insert(arguments.begin(), KVTOOL_PATH);
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        out_.Reset(ends[0]);
        const UniqueFd child_end(ends[1]);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, child_end.Get(), STDOUT_FILENO);
        EXPECT_EQ(posix_spawn(&pid_, KVTOOL_PATH, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
    }

    // Reads on until the text has come or the output ends.
    bool ReadUntil(const std::string& text) {
        while (text.empty() || output_.find(text) == std::string::npos) {
            char buffer[4096];
            const ssize_t n = read(out_.Get(), buffer, sizeof buffer);
            if (n <= 0) {
                return false;
            }
            output_.append(buffer, static_cast<size_t>(n));
        }
        return true;
    }
    void Signal(int number) const { EXPECT_EQ(kill(pid_, number), 0); }
    // The exit code; -1 when a signal ended it.
    int Wait() {
        (void)ReadUntil("");
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string& Output() const { return output_; }

  private:
    pid_t pid_ = -1;
    UniqueFd out_;
    std::string output_;
};

int RunTool(const Arguments& arguments, std::string* output = nullptr) {
    Program program(arguments);
    const int code = program.Wait();
    if (output != nullptr) {
        *output = program.Output();
    }
    return code;
}

class KvtoolCli : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/kvtool_test.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory_ = name;
        std::ofstream(Path("app")) << std::string(200000, 'a');
        ASSERT_EQ(RunTool({"pack", "-o", Path("good"), "app=" + Path("app")}), 0);
        ASSERT_EQ(RunTool({"pack", "-o", Path("other"), "--ic", "OTHER", "app=" + Path("app")}), 0);
    }
    void TearDown() override {
        for (const char* name : {"app", "good", "other", "again", "layout"}) {
            (void)unlink(Path(name).c_str());
        }
        // Fails when a command has left a temporary file behind.
        EXPECT_EQ(rmdir(directory_.c_str()), 0);
    }
    std::string Path(const std::string& name) const { return directory_ + "/" + name; }
    std::string Read(const std::string& name) const {
        std::ifstream file(Path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string directory_;
};

TEST_F(KvtoolCli, UsageErrorsHaveTheirOwnCode) {
    EXPECT_EQ(RunTool({"--help"}), 0);
    for (const Arguments& arguments : std::vector<Arguments>{
             {},
             {"nonsense"},
             {"pack", "-o", Path("again")},
             {"pack", "-o", Path("again"), "app"},
             {"inspect", "--size", "flash=1K", Path("good")},
             {"inspect", "--layout", Path("layout"), Path("good")},
             {"upgrade", "127.0.0.1"},
             {"upgrade", "127.0.0.1", Path("good"), "--stall-timeout", "0"},
             {"info", "--port", "65536", "127.0.0.1"},
             {"upgrade", "--wait=0", "127.0.0.1", Path("good")},
             {"upgrade", "--wait=soon", "127.0.0.1", Path("good")},
         }) {
        EXPECT_EQ(RunTool(arguments), 2) << testing::PrintToString(arguments);
    }
}

TEST_F(KvtoolCli, PackIsDeterministicAndRefusesWhole) {
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "app=" + Path("app")}), 0);
    EXPECT_EQ(Read("again"), Read("good"));
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "ap=" + Path("app")}), 3);
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "app=" + Path("missing")}), 3);
    EXPECT_EQ(Read("again"), Read("good")) << "a refusal leaves the file as it was";
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "--force", "ap=" + Path("app")}), 0);
    EXPECT_NE(Read("again"), Read("good"));
}

TEST_F(KvtoolCli, InspectTellsFitFromUnfit) {
    std::string output;
    EXPECT_EQ(RunTool({"inspect", "--json", Path("good")}, &output), 0);
    nlohmann::json json = nlohmann::json::parse(output);
    EXPECT_EQ(json["acceptable"], true);
    EXPECT_EQ(json["entries"][0]["written_behind"], 62144);
    EXPECT_EQ(RunTool({"inspect", "--json", Path("other")}, &output), 3);
    json = nlohmann::json::parse(output);
    EXPECT_EQ(json["findings"][0]["severity"], "error");
    EXPECT_EQ(RunTool({"inspect", Path("app")}), 3);
    std::ofstream(Path("layout")) << "# smaller\n\napp=128K\n";
    EXPECT_EQ(RunTool({"inspect", "--layout", Path("layout"), Path("good")}), 3);
}

TEST_F(KvtoolCli, InfoAndUpgrade) {
    fake::Device device(fake::Script{});
    const std::string port = std::to_string(device.Port());
    std::string output;
    EXPECT_EQ(RunTool({"info", "--json", "--port", port, "127.0.0.1"}, &output), 0);
    nlohmann::json json = nlohmann::json::parse(output);
    EXPECT_EQ(json["serial"], "1122334455667788");
    EXPECT_EQ(json["session_before_login"], 0);
    EXPECT_EQ(json["session"], 0x5A000001);

    const Arguments upgrade = {"upgrade", "--port", port, "--no-follow", "--json", "127.0.0.1"};
    Arguments refused = upgrade;
    refused.push_back(Path("other"));
    EXPECT_EQ(RunTool(refused, &output), 3);
    EXPECT_EQ(nlohmann::json::parse(output)["accepted"], false);
    EXPECT_TRUE(device.UpgradeRequest().empty());
    Arguments accepted = upgrade;
    accepted.push_back(Path("good"));
    EXPECT_EQ(RunTool(accepted, &output), 0);
    json = nlohmann::json::parse(output);
    EXPECT_EQ(json["accepted"], true);
    EXPECT_EQ(json["bytes_acknowledged"], Read("good").size() + 37);
    const fake::Bytes stream = device.Stream();
    EXPECT_EQ(std::string(stream.begin(), stream.end() - 37), Read("good"));
}

// The device's own identity decides, not the one that this tool is built for.
TEST_F(KvtoolCli, UpgradeComparesWithWhatTheDeviceSays) {
    fake::Script script;
    script.sensor = "39QX";
    fake::Device device(script);
    const std::string port = std::to_string(device.Port());
    EXPECT_EQ(RunTool({"upgrade", "--port", port, "--no-follow", "127.0.0.1", Path("good")}), 3);
    EXPECT_TRUE(device.UpgradeRequest().empty());
    EXPECT_EQ(
        RunTool({"upgrade", "--port", port, "--no-follow", "--force", "127.0.0.1", Path("good")}),
        0);
}

TEST_F(KvtoolCli, InterruptEndsAnUploadAtOnce) {
    for (const int number : {SIGINT, SIGTERM}) {
        fake::Script script;
        script.stop_after = 1000;
        fake::Device device(script);
        Program program(
            {"upgrade", "--port", std::to_string(device.Port()), "127.0.0.1", Path("good")});
        ASSERT_TRUE(program.ReadUntil("identify:"));
        program.Signal(number);
        EXPECT_EQ(program.Wait(), 130);
    }
}

TEST_F(KvtoolCli, WaitsForTheDeviceToAppear) {
    uint16_t port = 0;
    { port = fake::Device(fake::Script{}).Port(); }
    Program program({"upgrade", "--wait", "--port", std::to_string(port), "--no-follow",
                     "127.0.0.1", Path("good")});
    ASSERT_TRUE(program.ReadUntil("not yet:"));
    fake::Device device(fake::Script{}, port);
    EXPECT_EQ(program.Wait(), 0);

    EXPECT_EQ(RunTool({"upgrade", "--wait=1", "--port", "1", "127.0.0.1", Path("good")}), 4);
}

TEST_F(KvtoolCli, FindsTheDeviceByItsMacAddress) {
    ASSERT_EQ(system("ip link add cam0 type veth peer name cam1 &&"
                     "ip addr add 10.7.0.1/24 broadcast 10.7.0.255 dev cam0 &&"
                     "ip link set cam0 up && ip link set cam1 up"),
              0);
    fake::Device device(fake::Script{}, 0, "0.0.0.0");
    std::string port(4, '\0');
    port[2] = static_cast<char>(device.Port() >> 8);
    port[3] = static_cast<char>(device.Port());
    fake::Responder responder({fake::Patched(fake::SearchReply(), 240, port)}, "0.0.0.0", 6789);
    std::string output;
    EXPECT_EQ(RunTool({"info", "--json", "02:00:5e:10:20:30"}, &output), 0);
    EXPECT_EQ(nlohmann::json::parse(output)["address"],
              "10.7.0.1:" + std::to_string(device.Port()));
    EXPECT_EQ(RunTool({"info", "02:00:5e:10:20:31"}), 4);
    EXPECT_EQ(RunTool({"discover", "--json", "--timeout", "0.5", "--interface", "cam0"}, &output),
              0);
    EXPECT_EQ(nlohmann::json::parse(output)["devices"][0]["senders"][0], "10.7.0.1");
    EXPECT_EQ(system("ip link del cam0"), 0);
}

}  // namespace
