#include "tools/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "common/kv_raii.h"
#include "mini/kv_mini_frame.h"
#include "tools/base/errors.h"
#include "tools/base/wait.h"

namespace kvtool {

static_assert(kMaxPackageSize + kv::kMd5TrailerSize == 0xFFFFFFFFULL,
              "package and trailer must fit the announced length");

namespace {

constexpr size_t kStep = size_t{1} << 20;

std::string Because(const std::string& what, const std::string& path) {
    return "cannot " + what + " " + Printable(path) + ": " + strerror(errno);
}

void WriteAll(int fd, const Bytes& bytes, const std::string& path) {
    size_t done = 0;
    while (done < bytes.size()) {
        ThrowIfInterrupted();
        const ssize_t n = write(fd, bytes.data() + done, std::min(kStep, bytes.size() - done));
        if (n < 0 && errno != EINTR) {
            throw ToolError(ExitCode::kInternal, Because("write", path));
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
}

// Removes the temporary file unless it has been renamed.
class TemporaryName {
  public:
    explicit TemporaryName(std::string name) : name_(std::move(name)) {}
    ~TemporaryName() { (void)unlink(name_.c_str()); }
    TemporaryName(const TemporaryName&) = delete;
    TemporaryName& operator=(const TemporaryName&) = delete;
    const std::string& Get() const { return name_; }

  private:
    std::string name_;
};

}  // namespace

Bytes ReadWholeFile(const std::string& path) {
    // Non-blocking: a named pipe must be refused below, not waited for.
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!fd || fstat(fd.Get(), &info) != 0) {
        throw ToolError(ExitCode::kRefused, Because("open", path));
    }
    if (!S_ISREG(info.st_mode)) {
        throw ToolError(ExitCode::kRefused, Printable(path) + " is not a regular file");
    }
    if (static_cast<uint64_t>(info.st_size) > kMaxPackageSize) {
        throw ToolError(ExitCode::kRefused,
                        Printable(path) +
                            " is too large: " + SizeText(static_cast<uint64_t>(info.st_size)) +
                            "; the protocol allows at most " + SizeText(kMaxPackageSize));
    }
    Bytes bytes(static_cast<size_t>(info.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        ThrowIfInterrupted();
        const ssize_t n = read(fd.Get(), bytes.data() + done, std::min(kStep, bytes.size() - done));
        if (n == 0) {
            throw ToolError(ExitCode::kRefused,
                            Printable(path) + " became shorter while kvtool read it");
        }
        if (n < 0 && errno != EINTR) {
            throw ToolError(ExitCode::kRefused, Because("read", path));
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return bytes;
}

void WriteWholeFile(const std::string& path, const Bytes& bytes) {
    const TemporaryName temporary(path + ".tmp." + std::to_string(getpid()));
    const UniqueFd fd(open(temporary.Get().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!fd) {
        throw ToolError(ExitCode::kInternal, Because("create", temporary.Get()));
    }
    WriteAll(fd.Get(), bytes, temporary.Get());
    if (fsync(fd.Get()) != 0) {
        throw ToolError(ExitCode::kInternal, Because("write", temporary.Get()));
    }
    ThrowIfInterrupted();
    if (rename(temporary.Get().c_str(), path.c_str()) != 0) {
        throw ToolError(ExitCode::kInternal, Because("rename to", path));
    }
}

void WriteToStandardOutput(const Bytes& bytes) {
    if (isatty(STDOUT_FILENO) == 1) {
        throw ToolError(ExitCode::kUsage,
                        "standard output is a terminal; redirect it to a file or a pipe");
    }
    WriteAll(STDOUT_FILENO, bytes, "standard output");
}

bool SameFile(const std::string& a, const std::string& b) {
    struct stat first {};
    struct stat second {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::vector<SourceLine> ReadLines(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw ToolError(ExitCode::kUsage, Because("read", path));
    }
    std::vector<SourceLine> lines;
    std::string raw;
    for (int number = 1; std::getline(file, raw); ++number) {
        // A "#" inside a word belongs to the word.
        size_t hash = raw.find('#');
        while (hash != std::string::npos && hash > 0 && raw[hash - 1] != ' ' &&
               raw[hash - 1] != '\t') {
            hash = raw.find('#', hash + 1);
        }
        const std::string text = Trimmed(raw.substr(0, hash));
        if (!text.empty()) {
            lines.push_back({Printable(path) + ":" + std::to_string(number) + ": ", text});
        }
    }
    if (file.bad()) {
        throw ToolError(ExitCode::kUsage, Because("read", path));
    }
    return lines;
}

}  // namespace kvtool
