#include "tools/package/signer.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "common/kv_raii.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/wait.h"
#include "tools/package/minisign_files.h"
#include "tools/package/signature.h"

namespace kvtool {

namespace {

// A new folder for the package that minisign reads and the signature that it writes.
class TemporaryFolder {
  public:
    TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "kvtool-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            throw ToolError(ExitCode::kInternal,
                            "cannot create " + Printable(path_) + ": " + strerror(errno));
        }
    }
    ~TemporaryFolder() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string Path(const char* name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Restores the terminal: a program that is interrupted at a password leaves it without echo.
class KeepTerminal {
  public:
    KeepTerminal() : terminal_(tcgetattr(STDIN_FILENO, &settings_) == 0) {}
    ~KeepTerminal() {
        if (terminal_) {
            (void)tcsetattr(STDIN_FILENO, TCSANOW, &settings_);
        }
    }
    KeepTerminal(const KeepTerminal&) = delete;
    KeepTerminal& operator=(const KeepTerminal&) = delete;

  private:
    struct termios settings_ {};
    bool terminal_;
};

// Starts a program. What it prints goes to standard error, because standard output may take the
// package. It holds `end` open as long as it runs.
pid_t StartProgram(const std::vector<std::string>& words, int end) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    (void)posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    // A descriptor that is duplicated to itself stays open in the program.
    (void)posix_spawn_file_actions_adddup2(&actions, end, end);
    pid_t child = -1;
    const int error =
        posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw ToolError(ExitCode::kInternal, words[0] +
                                                 ", which makes the signature, cannot be "
                                                 "started: " +
                                                 strerror(error));
    }
    return child;
}

// Runs a program and returns whether it succeeded. An interrupt ends it, and so does the time-out.
bool RunProgram(const std::vector<std::string>& words, Millis timeout) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot create a pipe");
    }
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    const KeepTerminal keep;
    const pid_t child = StartProgram(words, theirs.Get());
    theirs.Reset();
    int status = 0;
    try {
        if (WaitFor(ours.Get(), POLLIN, Clock::now() + timeout) == 0) {
            (void)kill(child, SIGTERM);
        }
    } catch (const ToolError&) {
        (void)kill(child, SIGTERM);
        (void)waitpid(child, &status, 0);
        throw;
    }
    (void)waitpid(child, &status, 0);
    ThrowIfInterrupted();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

void SignPackage(Bytes* package, const std::string& key) {
    const auto room = FindEmbeddedSignature(*package);
    if (!room) {
        throw ToolError(ExitCode::kInternal, "the package has no room for a signature");
    }
    const std::string& comment = room->text.comment;
    uint8_t* const image = package->data() + room->offset;
    memset(image, 0, room->Size());
    const TemporaryFolder folder;
    const std::string input = folder.Path("package");
    const std::string output = folder.Path("signature");
    WriteWholeFile(input, *package);
    // minisign may ask for a password.
    constexpr std::chrono::minutes kTimeout(10);
    if (!RunProgram({"minisign", "-S", "-H", "-s", key, "-m", input, "-x", output, "-t", comment},
                    kTimeout)) {
        throw ToolError(ExitCode::kRefused, "minisign could not sign with " + Printable(key));
    }
    const DetachedSignature made = ReadDetachedSignature(output);
    if (!made.prehashed || made.comment != comment) {
        throw ToolError(ExitCode::kInternal, "minisign did not sign as it was asked to");
    }
    kv::PackageSignatureBytes bytes = {{'E', 'D'}, {}, {}, {}};
    std::copy(made.id.begin(), made.id.end(), bytes.keyId);
    std::copy(made.signature.begin(), made.signature.end(), bytes.signature);
    std::copy(made.commentSignature.begin(), made.commentSignature.end(), bytes.commentSignature);
    memcpy(image, &bytes, sizeof bytes);
    std::copy(comment.begin(), comment.end(), image + sizeof bytes);
}

}  // namespace kvtool
