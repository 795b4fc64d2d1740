#define KV_TRACE_NAME "common/kv_mini_console"
#include "common/kv_mini_console.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_thread.h"
#include "flash/kv_fullhan_watdog.h"

namespace {

constexpr size_t kNameSize = 64;
constexpr size_t kArgumentsSize = 1024;
constexpr int kMaxArguments = 8;
constexpr size_t kReplySize = 8200;
constexpr size_t kListSize = 1024;

// A message as read from the command pipe. argc is in host byte order.
struct Message {
    int32_t argc;
    char name[kNameSize];
    char arguments[kArgumentsSize];
};
static_assert(sizeof(Message) == 1092, "size of a command message");

struct Command {
    const char* name;
    int (*handler)(int argc, const char* command, char* const* argv, char* reply);
};

int __KV_Console_CmdPrint(int argc, const char* command, char* const* argv, char* reply);

constexpr Command kCommands[] = {
    {"kv-console-cmd-print", __KV_Console_CmdPrint},
    {"kv-watdog", KV_FH_WDT_ConsoleCmd},
};

struct ConsoleState {
    int commandPipe;
    int replyPipe;
    pthread_t thread;
    std::atomic<int> inited;
    std::atomic<int> running;
};

ConsoleState g_console = {-1, -1, static_cast<pthread_t>(-1), {0}, {0}};

int __KV_Console_CmdPrint(int argc, const char* command, char* const* argv, char* reply) {
    (void)argc;
    (void)command;
    (void)argv;
    size_t used = 0;
    for (const Command& entry : kCommands) {
        const int written = snprintf(reply + used, kListSize - used, "%s\n", entry.name);
        used += static_cast<size_t>(written);
        if (used >= kListSize) {
            break;
        }
    }
    return 0;
}

const Command* FindCommand(const char* name) {
    for (const Command& entry : kCommands) {
        if (strcmp(entry.name, name) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

// Points `argv` into the message. Returns false if the count does not fit the vector or an argument
// does not end inside the message. Bytes that were not received are zero.
bool SplitArguments(Message* message, char** argv) {
    if (message->argc < 0 || message->argc > kMaxArguments) {
        return false;
    }
    char* const end = message->arguments + sizeof(message->arguments);
    char* next = message->arguments;
    for (int i = 0; i < message->argc; ++i) {
        char* const nul =
            next < end ? static_cast<char*>(memchr(next, '\0', static_cast<size_t>(end - next)))
                       : nullptr;
        if (nul == nullptr) {
            return false;
        }
        argv[i] = next;
        next = nul + 1;
    }
    return true;
}

// Answers one message. `remembered` is the last known command.
void ServeMessage(Message* message, const Command** remembered) {
    char name[kNameSize + 1] = {};
    memcpy(name, message->name, kNameSize);
    const Command* const named = FindCommand(name);
    if (named != nullptr) {
        *remembered = named;
    }
    char reply[kReplySize] = "reply:\n";
    char* const end = reply + strlen(reply);
    char* argv[kMaxArguments] = {};
    if (*remembered == nullptr) {
        (void)snprintf(end, sizeof(reply) - strlen(reply), "No Such Command! try ''\n");
    } else if (SplitArguments(message, argv)) {
        // Kept: an unknown name repeats the last command.
        (void)(*remembered)->handler(message->argc, name, argv, end);
    }
    const size_t length = strlen(reply);
    if (write(g_console.replyPipe, reply, length) != static_cast<ssize_t>(length)) {
        (void)puts("Can not reply strings to command link!");
    }
}

// Waits up to one second for a message. Returns true if there is one to read.
bool WaitForMessage() {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(g_console.commandPipe, &readable);
    struct timeval timeout = {1, 0};
    const int result = select(g_console.commandPipe + 1, &readable, nullptr, nullptr, &timeout);
    if (result < 0) {
        (void)printf("select error:%d\n", result);
    }
    return result > 0;
}

void* __KV_Console_Proc(void* argument) {
    (void)argument;
    (void)prctl(PR_SET_NAME, "__KV_Console_Proc");
    const Command* remembered = nullptr;
    while (g_console.running.load() != 0) {
        Message message = {};
        if (!WaitForMessage()) {
            continue;
        }
        if (read(g_console.commandPipe, &message, sizeof(message)) <= 0) {
            continue;
        }
        ServeMessage(&message, &remembered);
        (void)usleep(10000);
    }
    return nullptr;
}

// `what` names the pipe in the failure message.
int OpenPipe(const char* path, const char* what, int* pipe) {
    *pipe = open(path, O_RDWR | O_CLOEXEC);
    if (*pipe < 0) {
        (void)printf("Can not Open %s link:%s,ret=%d\n", what, path, *pipe);
    }
    return *pipe;
}

}  // namespace

int KV_Console_Init(void) {
    // Kept: the flag stays set if a pipe is missing, so a second call does not try again.
    if (g_console.inited.exchange(1) != 0) {
        return 0;
    }
    int result = OpenPipe(kv::kConsoleCommandPipe, "snd", &g_console.commandPipe);
    if (result < 0) {
        return result;
    }
    result = OpenPipe(kv::kConsoleReplyPipe, "ack", &g_console.replyPipe);
    if (result < 0) {
        return result;
    }
    for (const Command& entry : kCommands) {
        (void)KV_Console_AddCmdLink(entry.name);
    }
    g_console.running.store(1);
    const int error = KV_ThreadStart(&g_console.thread, 0, __KV_Console_Proc, nullptr);
    if (error != 0) {
        KV_ASSERT_FAIL_AT(253, "pthread create failed:%s", strerror(error));
    }
    return 0;
}

int KV_Console_DeInit(void) {
    if (g_console.running.exchange(0) != 1) {
        KV_FAILED_AT(263, "Console is DeInit");
        return -1;
    }
    (void)pthread_join(g_console.thread, nullptr);
    return 0;
}

int KV_Console_AddCmdLink(const char* name) {
    char path[128] = {};
    (void)snprintf(path, sizeof(path), "%s/%s", kv::kConsoleDir, name);
    (void)unlink(path);
    const int result = symlink(kv::kConsoleClient, path);
    if (result != 0) {
        const int error = errno;
        (void)printf("errno=%d\n", error);
        (void)printf("pcName : %s msg : %s\n", name, strerror(error));
    }
    return result;
}
