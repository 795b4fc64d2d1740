// Captures what the code under test writes to a standard descriptor.
#pragma once

#include <stdexcept>

#include "tests/support/common.h"

namespace kv_test {

// Redirects descriptor `fd` (1 or 2) into a temporary file until the end of the scope. The messages
// of failed expectations in the scope are captured too; a failed test prints the text at the end.
class Capture {
  public:
    explicit Capture(int fd) : fd_(fd), file_(tmpfile()), saved_(dup(fd)) {
        if (file_ == nullptr || saved_ < 0) {
            throw std::runtime_error("no temporary file to capture into");
        }
        (void)fflush(nullptr);
        (void)dup2(fileno(file_), fd_);
    }
    ~Capture() {
        const std::string text = testing::Test::HasFailure() ? Text() : "";
        (void)fflush(nullptr);
        (void)dup2(saved_, fd_);
        (void)write(fd_, text.data(), text.size());
        (void)close(saved_);
        (void)fclose(file_);
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // All that has been written so far.
    std::string Text() const {
        (void)fflush(nullptr);
        std::string text;
        char block[4096];
        off_t offset = 0;
        for (;;) {
            const ssize_t got = pread(fileno(file_), block, sizeof(block), offset);
            if (got <= 0) {
                return text;
            }
            text.append(block, static_cast<size_t>(got));
            offset += got;
        }
    }

  private:
    int fd_;
    FILE* file_;
    int saved_;
};

}  // namespace kv_test
