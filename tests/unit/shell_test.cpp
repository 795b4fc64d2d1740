#include "common/kv_shell.h"

#include <spawn.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "tests/support/capture.h"

using namespace kv_test;

namespace {

uint64_t StatusMask(const std::string& status, const std::string& name) {
    return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16);
}

// Number of spawns that fail before one succeeds, and their error.
std::atomic<int> g_failures{0};
int g_error;
// What the last child was started with.
short g_flags;
sigset_t g_mask;

}  // namespace

extern "C" {
decltype(posix_spawn) __real_posix_spawn;
decltype(posix_spawn) __wrap_posix_spawn;

int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[],
                       char* const envp[]) {
    (void)posix_spawnattr_getflags(attributes, &g_flags);
    (void)posix_spawnattr_getsigmask(attributes, &g_mask);
    return g_failures.fetch_sub(1) > 0
               ? g_error
               : __real_posix_spawn(pid, path, actions, attributes, argv, envp);
}
}

// A kernel that cannot close a child's descriptors still runs the command.
TEST(Shell, RunsWithoutClosingAndTellsSpawnErrorsApart) {
    const struct {
        int failures;
        int error;
        int result;
        int exitStatus;
    } cases[] = {{1, EBADF, 0, 7}, {2, ENOENT, 0, 127}, {1, EAGAIN, 1, -1}, {1, ENOMEM, 1, -1}};
    for (const auto& c : cases) {
        g_failures = c.failures;
        g_error = c.error;
        int status = -1;
        EXPECT_EQ(KV_ShellRun("exit 7", &status), c.result) << c.error;
        EXPECT_EQ(status < 0 ? -1 : WEXITSTATUS(status), c.exitStatus) << c.error;
        g_failures = 0;
    }
}

TEST(Shell, WaitsNoLongerThanToldAndLeavesTheCommandRunning) {
    int status = -1;
    EXPECT_EQ(KV_ShellRunFor("exit 7", 30000, &status), 0);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    const Folder folder;
    const std::string go = folder.Path("go");
    const std::string done = folder.Path("done");
    const std::string command = "while [ ! -e " + go + " ]; do sleep 0.01; done; echo >" + done;
    errno = 0;
    EXPECT_EQ(KV_ShellRunFor(command.c_str(), 100, &status), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    WriteFile(go, "");
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(done); }));
    EXPECT_GT(wait(nullptr), 0);
}

TEST(Shell, ReportsTheChildsStatus) {
    int status = -1;
    ASSERT_EQ(KV_ShellRun("exit 7", &status), 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
    ASSERT_EQ(KV_ShellRun("kill -9 $$", &status), 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(KV_ShellRun("true", nullptr), 0);
}

TEST(Shell, ChildStartsWithDefaultSignalsAndAnEmptyMask) {
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGUSR1, [](int) {});
    sigset_t blocked;
    sigset_t before;
    (void)sigfillset(&blocked);
    (void)pthread_sigmask(SIG_BLOCK, &blocked, &before);
    std::string text;
    {
        const Capture out(1);
        (void)KV_ShellRun("cat /proc/self/status", nullptr);
        text = out.Text();
    }
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    // The shell of this machine empties its own mask; other shells do not.
    EXPECT_TRUE((g_flags & POSIX_SPAWN_SETSIGMASK) != 0 && sigisemptyset(&g_mask) != 0);
    // Signals 32 and 33 belong to the C library, which leaves them ignored in a child.
    EXPECT_EQ(StatusMask(text, "SigIgn:") & ~0x180000000ULL, 0U);
    EXPECT_EQ(StatusMask(text, "SigCgt:"), 0U);
}

TEST(Shell, ChildInheritsNoOtherDescriptor) {
    const int open = dup(STDERR_FILENO);
    int status = -1;
    const std::string command = "test -e /proc/self/fd/" + std::to_string(open);
    EXPECT_EQ(KV_ShellRun(command.c_str(), &status), 0);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    (void)close(open);
}

TEST(Shell, EchoPrecedesTheOutputAndIsCutAt255Characters) {
    std::string text;
    {
        const Capture out(1);
        (void)setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
        KV_ShellEchoFormat("echo %s", "hello");
        KV_ShellEchoFormat(": %s", std::string(300, 'x').c_str());
        text = out.Text();
    }
    EXPECT_EQ(text, "# echo hello\r\nhello\n# : " + std::string(253, 'x') + "\r\n");
}

TEST(Shell, EachCallerWaitsForItsOwnChild) {
    std::vector<std::thread> threads;
    std::vector<int> seen(8, -1);
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([i, &seen] {
            int status = -1;
            if (KV_ShellRun(("exit " + std::to_string(i)).c_str(), &status) == 0) {
                seen[i] = WEXITSTATUS(status);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i], static_cast<int>(i));
    }
}
