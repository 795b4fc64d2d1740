#include "tools/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

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

// Where a chain of symbolic links leads, also to a file that does not exist yet.
std::string FollowLinks(std::filesystem::path path) {
    constexpr int kMostLinks = 40;
    for (int links = 0; links < kMostLinks; ++links) {
        std::error_code error;
        const std::filesystem::path next = std::filesystem::read_symlink(path, error);
        if (error) {
            return path;
        }
        path = path.parent_path() / next;
    }
    errno = ELOOP;
    throw ToolError(ExitCode::kInternal, Because("write", path));
}

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

PendingFile::TemporaryName::~TemporaryName() {
    if (!text.empty()) {
        (void)unlink(text.c_str());
    }
}

PendingFile::PendingFile(const std::string& path, const Bytes& bytes) : path_(path), bytes_(bytes) {
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        fd_.Reset(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!fd_) {
            throw ToolError(ExitCode::kInternal, Because("open", path));
        }
        return;
    }
    path_ = FollowLinks(path);
    const std::string name = path_ + ".tmp." + std::to_string(getpid());
    fd_.Reset(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!fd_) {
        throw ToolError(ExitCode::kInternal, Because("create", name));
    }
    temporary_.text = name;
    WriteAll(fd_.Get(), bytes, name);
    if (fsync(fd_.Get()) != 0) {
        throw ToolError(ExitCode::kInternal, Because("write", name));
    }
}

void PendingFile::Commit() {
    ThrowIfInterrupted();
    if (temporary_.text.empty()) {
        WriteAll(fd_.Get(), bytes_, path_);
        return;
    }
    if (rename(temporary_.text.c_str(), path_.c_str()) != 0) {
        throw ToolError(ExitCode::kInternal, Because("rename to", path_));
    }
    temporary_.text.clear();
}

void WriteWholeFile(const std::string& path, const Bytes& bytes) {
    PendingFile(path, bytes).Commit();
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

bool SameTarget(const std::string& a, const std::string& b) {
    const auto place = [](const std::string& path) {
        std::error_code ignored;
        return std::filesystem::weakly_canonical(std::filesystem::absolute(FollowLinks(path)),
                                                 ignored);
    };
    return SameFile(a, b) || place(a) == place(b);
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
