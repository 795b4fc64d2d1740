// Used by nearly every test: texts, files, a temporary folder, and bounded waiting.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kv_test {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

// How long a test waits by default. Passing early ends each wait.
constexpr double kPatienceSeconds = 60;

// The file's bytes; empty if it cannot be read. Stream-buffer iterators would throw then, so the
// code uses none.
inline std::string ReadFile(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline size_t CountOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// Whether `text` contains `parts` in this order.
inline testing::AssertionResult InOrder(const std::string& text, const Lines& parts) {
    size_t at = 0;
    for (const std::string& part : parts) {
        at = text.find(part, at);
        if (at == std::string::npos) {
            return testing::AssertionFailure()
                   << "'" << part << "' is missing or out of order in:\n"
                   << text;
        }
        at += part.size();
    }
    return testing::AssertionSuccess();
}

// Returns true as soon as `holds` does, false after the time-out. Pauses as long as `holds` takes,
// so that waiting leaves the machine to what is waited for.
inline bool WaitUntil(const std::function<bool()>& holds,
                      double timeoutSeconds = kPatienceSeconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
    for (;;) {
        const auto start = Clock::now();
        if (holds()) {
            return true;
        }
        const auto now = Clock::now();
        if (now > end) {
            return false;
        }
        std::this_thread::sleep_for(std::max<Clock::duration>(milliseconds(2), now - start));
    }
}

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct CommandResult {
    int status;  // exit status, or 128 + signal
    std::string output;
};

// Runs a shell command and captures both its streams.
inline CommandResult Run(const std::string& command) {
    FILE* const pipe = popen(("exec 2>&1; " + command).c_str(), "re");
    CommandResult result = {-1, ""};
    for (int byte = 0; pipe != nullptr && (byte = fgetc(pipe)) != EOF;) {
        result.output += static_cast<char>(byte);
    }
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

// The same for a command that must succeed. Returns its output.
inline std::string Shell(const std::string& command) {
    const CommandResult result = Run(command);
    EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
    return result.output;
}

// A new folder, below TMPDIR or "/tmp", that exists as long as its object.
class Folder {
  public:
    Folder() { EXPECT_NE(mkdtemp(path_.data()), nullptr) << strerror(errno); }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::string& Path() const { return path_; }
    std::string Path(const std::string& name) const { return path_ + "/" + name; }

  private:
    static std::string Base() {
        const char* const chosen = getenv("TMPDIR");
        return chosen != nullptr ? chosen : "/tmp";
    }
    std::string path_ = Base() + "/kv-test-XXXXXX";
};

}  // namespace kv_test
