#include "vboard/command_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "common/kv_platform.h"
#include "common/kv_raii.h"

namespace vboard {

namespace fs = std::filesystem;

namespace {

constexpr size_t kNameSize = 64;
constexpr size_t kArgumentsSize = 1024;
constexpr int kReplyMilliseconds = 10'000;
// A long reply comes in pieces, and nothing marks its end.
constexpr int kNextPieceMilliseconds = 50;

// A message: argc (32 bits, native byte order), the name in 64 bytes, the arguments back to back.
std::optional<std::string> Message(int argc, char** argv, const std::string& name) {
    const int32_t count = argc - 1;
    std::string message(reinterpret_cast<const char*>(&count), sizeof(count));
    std::string arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.append(argv[i], strlen(argv[i]) + 1);
    }
    if (name.size() >= kNameSize || arguments.size() > kArgumentsSize) {
        return std::nullopt;
    }
    message += name;
    message.resize(sizeof(count) + kNameSize, '\0');
    return message + arguments;
}

// Reads until no piece has come for kNextPieceMilliseconds; waits `milliseconds` for the first.
std::string Read(int pipe, int milliseconds) {
    std::string text;
    pollfd ready{pipe, POLLIN, 0};
    while (poll(&ready, 1, milliseconds) > 0) {
        char piece[4096];
        const ssize_t length = read(pipe, piece, sizeof(piece));
        if (length <= 0) {
            break;
        }
        text.append(piece, static_cast<size_t>(length));
        milliseconds = kNextPieceMilliseconds;
    }
    return text;
}

int Fail(const std::string& why) {
    (void)fprintf(stderr, "command_link: %s\n", why.c_str());
    return 1;
}

}  // namespace

bool IsCommandLink() {
    // argv[0] is the link's name; only the kernel knows the program.
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error) == kv::kConsoleClient;
}

int CommandLinkMain(int argc, char** argv) {
    const std::string name = fs::path(argv[0]).filename();
    const std::optional<std::string> message = Message(argc, argv, name);
    if (!message) {
        (void)fprintf(stderr,
                      "command_link: the name may have %zu bytes, all arguments together %zu\n",
                      kNameSize - 1, kArgumentsSize);
        return 101;
    }
    // Fails unless a console has the command pipe open for reading.
    const UniqueFd commands(open(kv::kConsoleCommandPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!commands) {
        return Fail(errno == ENXIO ? "no console is running" : "no command pipe");
    }
    const UniqueFd replies(open(kv::kConsoleReplyPipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!replies) {
        return Fail("no reply pipe");
    }
    // One exchange at a time: the console takes each read for one message.
    (void)flock(commands.Get(), LOCK_EX);
    (void)Read(replies.Get(), 0);  // drops what an interrupted client left
    if (write(commands.Get(), message->data(), message->size()) !=
        static_cast<ssize_t>(message->size())) {
        return Fail("cannot send the message");
    }
    const std::string reply = Read(replies.Get(), kReplyMilliseconds);
    if (reply.empty()) {
        return Fail("no reply");
    }
    (void)fwrite(reply.data(), 1, reply.size(), stdout);
    return 0;
}

}  // namespace vboard
