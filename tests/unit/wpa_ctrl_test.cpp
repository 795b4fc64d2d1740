// The control client against a scripted supplicant. Requests that take seconds run in parallel.
#include "wifi/kv_wpa_ctrl.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <future>

#include "tests/support/capture.h"
#include "tests/support/footprint.h"
#include "tests/support/scripted_supplicant.h"
#include "wifi/kv_wpa_query.h"

using namespace kv_test;

namespace {

using Messages = std::vector<ScriptedSupplicant::Message>;

constexpr char kPath[] = "/tmp/scripted/one";

long ClientSockets() {
    return CountEntries("/tmp", "wpa_ctrl_");
}

std::string LocalName(const wpa_ctrl* ctrl) {
    sockaddr_un address{};
    socklen_t size = sizeof(address);
    (void)getsockname(wpa_ctrl_get_fd(ctrl), reinterpret_cast<sockaddr*>(&address), &size);
    return address.sun_path;
}

// The name of the next connection's socket.
std::string NextName() {
    wpa_ctrl* ctrl = wpa_ctrl_open(kPath);
    const std::string name = LocalName(ctrl);
    wpa_ctrl_close(ctrl);
    const size_t dash = name.rfind('-') + 1;
    return name.substr(0, dash) + std::to_string(std::stoi(name.substr(dash)) + 1);
}

void BindAndForget(const std::string& path) {
    (void)unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    (void)close(fd);
}

std::string g_event;
void KeepEvent(char* message, size_t length) {
    g_event = message;
    EXPECT_EQ(g_event.size(), length);
}

TEST(WpaCtrl, NamesAreUniqueNonBlockingAndCloseOnExec) {
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always("OK\n"), kPath);
    wpa_ctrl* first = wpa_ctrl_open(kPath);
    wpa_ctrl* second = wpa_ctrl_open(kPath);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(LocalName(first), LocalName(second));
    EXPECT_EQ(LocalName(first).rfind("/tmp/wpa_ctrl_" + std::to_string(getpid()) + "-", 0), 0U);
    EXPECT_NE(fcntl(wpa_ctrl_get_fd(first), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(wpa_ctrl_get_fd(first), F_GETFD) & FD_CLOEXEC, 0);
    wpa_ctrl_close(first);
    wpa_ctrl_close(second);
    wpa_ctrl_close(nullptr);
    // A stale name is reused.
    const std::string stale = NextName();
    BindAndForget(stale);
    wpa_ctrl* ctrl = wpa_ctrl_open(kPath);
    ASSERT_NE(ctrl, nullptr);
    EXPECT_EQ(LocalName(ctrl), stale);
    EXPECT_EQ(wpa_ctrl_attach(ctrl), 0);
    wpa_ctrl_close(ctrl);
}

TEST(WpaCtrl, WhatCannotBeOpenedLeavesNothing) {
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always("OK\n"), kPath);
    BindAndForget("/tmp/scripted/refuses");
    const long descriptors = Descriptors();
    EXPECT_EQ(wpa_ctrl_open("/tmp/scripted/refuses"), nullptr);
    EXPECT_EQ(wpa_ctrl_open("/tmp/scripted/absent"), nullptr);
    EXPECT_EQ(wpa_ctrl_open(("/tmp/" + std::string(103, 'x')).c_str()), nullptr);
    // A directory at the client's name cannot be unlinked, and it is not ours to remove.
    const std::string name = NextName();
    std::filesystem::create_directory(name);
    EXPECT_EQ(wpa_ctrl_open(kPath), nullptr);
    EXPECT_TRUE(std::filesystem::is_directory(name));
    std::filesystem::remove(name);
    EXPECT_EQ(Descriptors(), descriptors);
    EXPECT_EQ(ClientSockets(), 0);
}

TEST(WpaCtrl, EventsAreNotTheReply) {
    ScriptedSupplicant supplicant(
        [](const std::string&) {
            return Messages{{"<3>CTRL-EVENT"}, {"<12345678"}, {"PONG\n"}};
        },
        kPath);
    wpa_ctrl* ctrl = wpa_ctrl_open(kPath);
    char reply[8];
    size_t length = sizeof(reply);
    ASSERT_EQ(wpa_ctrl_request(ctrl, "PING", 4, reply, &length, KeepEvent), 0);
    EXPECT_EQ(std::string(reply, length), "PONG\n");
    // The buffer was full, so the NUL replaced its last byte.
    EXPECT_EQ(g_event, "<123456");
    length = sizeof(reply);
    ASSERT_EQ(wpa_ctrl_request(ctrl, "PING", 4, reply, &length, nullptr), 0);
    EXPECT_EQ(std::string(reply, length), "PONG\n");
    supplicant.SetScript([](const std::string&) { return Messages{{"<event"}, {""}}; });
    length = sizeof(reply);
    ASSERT_EQ(wpa_ctrl_request(ctrl, "PING", 4, reply, &length, KeepEvent), 0);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(g_event, "<event");
    wpa_ctrl_close(ctrl);
}

TEST(WpaCtrl, AttachAndDetachWantExactlyOk) {
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always(""), kPath);
    wpa_ctrl* ctrl = wpa_ctrl_open(kPath);
    for (const char* answer : {"OK\n", "OK", "OK\n\n", "FAIL\n", ""}) {
        supplicant.SetScript(ScriptedSupplicant::Always(answer));
        const int expected = strcmp(answer, "OK\n") == 0 ? 0 : -1;
        EXPECT_EQ(wpa_ctrl_attach(ctrl), expected) << answer;
        EXPECT_EQ(wpa_ctrl_detach(ctrl), expected) << answer;
    }
    EXPECT_EQ(supplicant.Count("ATTACH"), 5);
    EXPECT_EQ(supplicant.Count("DETACH"), 5);
    char message[8];
    size_t length = sizeof(message);
    EXPECT_EQ(wpa_ctrl_recv(ctrl, message, &length), -1);
    EXPECT_EQ(errno, EAGAIN);
    wpa_ctrl_close(ctrl);
}

struct Outcome {
    int result;
    Clock::time_point start;
    milliseconds took;
};

Outcome TimedRequest(const std::string& path) {
    wpa_ctrl* ctrl = wpa_ctrl_open(path.c_str());
    char reply[kWpaReplySize];
    size_t length = sizeof(reply);
    const auto start = Clock::now();
    const int result = wpa_ctrl_request(ctrl, "PING", 4, reply, &length, nullptr);
    const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    wpa_ctrl_close(ctrl);
    return {result, start, took};
}

// A request to a supplicant that reads again 1.5 s later: after the second try and before the
// third. A busy machine may miss that time, so there are several attempts.
Outcome RequestAcrossResume(ScriptedSupplicant* supplicant, const std::string& path) {
    Outcome seen{};
    for (int attempt = 0; attempt < 5; ++attempt) {
        supplicant->Stall();
        auto request = std::async(std::launch::async, TimedRequest, path);
        std::this_thread::sleep_for(milliseconds(1500));
        const auto resumed = Clock::now();
        supplicant->Resume();
        seen = request.get();
        if (resumed - seen.start < milliseconds(1990) && seen.took >= milliseconds(1995)) {
            return seen;
        }
    }
    ADD_FAILURE() << "no third try after 2 s; the last request took " << seen.took.count() << " ms";
    return seen;
}

TEST(WpaCtrl, Times) {
    ScriptedSupplicant silent([](const std::string&) { return Messages{}; }, "/tmp/scripted/a");
    // The event at 4 s restarts the 10 s, so the reply at 11 s is in time.
    ScriptedSupplicant slow(
        [](const std::string&) {
            return Messages{{"<event", milliseconds(4000)}, {"PONG\n", milliseconds(7000)}};
        },
        "/tmp/scripted/b");
    ScriptedSupplicant full(ScriptedSupplicant::Always("PONG\n"), "/tmp/scripted/c");
    ScriptedSupplicant busy(ScriptedSupplicant::Always("PONG\n"), "/tmp/scripted/d");
    full.Stall();
    auto silence = std::async(std::launch::async, TimedRequest, "/tmp/scripted/a");
    auto restarted = std::async(std::launch::async, TimedRequest, "/tmp/scripted/b");
    auto refused = std::async(std::launch::async, TimedRequest, "/tmp/scripted/c");
    const Outcome resumed = RequestAcrossResume(&busy, "/tmp/scripted/d");

    const struct {
        const char* what;
        Outcome seen;
        int result;
        int from;
        int to;
    } cases[] = {
        {"sent again after 1 s each", resumed, 0, 2000, 10000},
        {"refused for over 5 s", refused.get(), -1, 5000, 9900},
        {"no reply", silence.get(), -2, 10000, 19000},
        {"event in between", restarted.get(), 0, 11000, 20000},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.seen.result, c.result) << c.what;
        EXPECT_GE(c.seen.took.count(), c.from - 5) << c.what;
        EXPECT_LE(c.seen.took.count(), c.to) << c.what;
    }
}

TEST(WpaCtrl, CleanupRemovesClientNamesOnly) {
    for (const char* name : {"wpa_ctrl_1-1", "wpa_ctrl_", "wpa_ctrl", "a_wpa_ctrl_2-2"}) {
        BindAndForget("/tmp/" + std::string(name));
    }
    wpa_ctrl_cleanup();
    EXPECT_EQ(ClientSockets(), 0);
    EXPECT_TRUE(std::filesystem::remove("/tmp/wpa_ctrl"));
    EXPECT_TRUE(std::filesystem::remove("/tmp/a_wpa_ctrl_2-2"));
}

TEST(WifiRunCmd, RunPathThenTmpThenNobody) {
    KV_WIFI_SetRunPath("/tmp/run");
    char reply[kWpaReplySize + 1];
    size_t length = kWpaReplySize;
    const Capture trace(2);
    EXPECT_EQ(wifi_run_cmd("PING", reply, &length), -1);
    EXPECT_TRUE(Contains(trace.Text(), "Err: wpa_ctrl_open():/tmp/run\n"));
    EXPECT_STREQ(reply, "");

    ScriptedSupplicant fallback(ScriptedSupplicant::Always("fallback"));
    length = kWpaReplySize;
    EXPECT_EQ(wifi_run_cmd("PING", reply, &length), 0);
    EXPECT_STREQ(reply, "fallback");
    ScriptedSupplicant own(ScriptedSupplicant::Always("own"), "/tmp/run/wpa_supplicant/wlan0");
    length = kWpaReplySize;
    EXPECT_EQ(wifi_run_cmd("PING", reply, &length), 0);
    EXPECT_STREQ(reply, "own");
    KV_WIFI_SetRunPath("/tmp");
}

TEST(WifiRunCmd, AFullReplyIsTerminatedInTheSpareByte) {
    ScriptedSupplicant supplicant(
        ScriptedSupplicant::Always(std::string(kWpaReplySize + 100, 'r')));
    std::array<char, kWpaReplySize + 2> reply{};
    reply.fill('#');
    size_t length = kWpaReplySize;
    EXPECT_EQ(wifi_run_cmd("STATUS", reply.data(), &length), 0);
    EXPECT_EQ(length, kWpaReplySize);
    EXPECT_EQ(std::string(reply.data()), std::string(kWpaReplySize, 'r'));
    EXPECT_EQ(reply.back(), '#');
}

TEST(WpaListener, TracesEventsUntilStopped) {
    const Capture trace(2);
    const auto traced = [&trace](const char* text) { return CountOf(trace.Text(), text); };
    // Without a supplicant the thread ends, and the next call starts another one.
    EXPECT_EQ(KV_WIFI_CtrlListen(), 0);
    EXPECT_TRUE(WaitUntil([&] { return traced("__KV_wifi_ctrlProc Exit\n") == 1U; }));
    EXPECT_EQ(traced("Err: wpa_ctrl_open():/tmp/wpa_supplicant/wlan0\n"), 1U);

    ScriptedSupplicant supplicant(ScriptedSupplicant::Always("OK\n"));
    EXPECT_EQ(KV_WIFI_CtrlListen(), 0);
    EXPECT_TRUE(WaitUntil([&] { return supplicant.Count("ATTACH") == 1; }));
    supplicant.Push("<3>first");
    supplicant.Push("<3>second");
    EXPECT_TRUE(WaitUntil([&] { return traced("Data:<3>second\n") == 1U; }));
    EXPECT_EQ(traced("Data:<3>first\n"), 1U);
    // Stopped and started again within a second: one thread ends, one remains.
    EXPECT_EQ(KV_WIFI_CtrlListen(), 0);
    EXPECT_EQ(KV_WIFI_CtrlListen(), 0);
    EXPECT_TRUE(WaitUntil([&] { return supplicant.Count("ATTACH") == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return traced("__KV_wifi_ctrlProc Exit\n") == 2U; }));
    EXPECT_EQ(ClientSockets(), 1);
    EXPECT_EQ(KV_WIFI_CtrlListen(), 0);
    EXPECT_TRUE(WaitUntil([&] { return traced("__KV_wifi_ctrlProc Exit\n") == 3U; }));
    EXPECT_EQ(ClientSockets(), 0);
    EXPECT_EQ(supplicant.Count("DETACH"), 0);
}

TEST(WpaLeaks, AThousandRequestsOfEachKindLeaveNothing) {
    const std::pair<const char*, Messages> behaviours[] = {
        {"answers", {{"wpa_state=SCANNING\n"}}},
        {"refuses", {{"FAIL\n"}}},
        {"says nothing", {{""}}},
        {"reports events first", {{"<event"}, {"<event"}, {"wpa_state=COMPLETED\n"}}},
        {"says too much", {{std::string(2000, 'x')}}},
    };
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always(""));
    BindAndForget("/tmp/refuses");
    for (const auto& [name, messages] : behaviours) {
        supplicant.SetScript([answer = messages](const std::string&) { return answer; });
        const int asked = supplicant.Count("STATUS");
        Footprint before;
        Footprint after;
        {
            const Capture trace(2);
            for (int i = -100; i < 1000; ++i) {
                if (i == 0) {
                    before = Footprint();
                }
                KV_WIFI_STATUS_INFO status;
                (void)KV_WIFI_WPA_Status(&status);
                wpa_ctrl_close(wpa_ctrl_open("/tmp/refuses"));
            }
            after = Footprint();
        }
        EXPECT_EQ(after.descriptors, before.descriptors) << name;
        EXPECT_LT(after.kib - before.kib, 64) << name;
        EXPECT_EQ(ClientSockets(), 0) << name;
        EXPECT_EQ(supplicant.Count("STATUS"), asked + 1100) << name;
    }
}

}  // namespace
