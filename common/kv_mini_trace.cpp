// Assertions must abort in every build.
#undef NDEBUG
#include <cassert>

#define KV_TRACE_NAME "common/kv_mini_trace"
#include "common/kv_mini_trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <pthread.h>
#include <unistd.h>

#include "common/kv_platform.h"
#include "common/kv_raii.h"

namespace {

constexpr uint32_t kSlotCount = 3;
constexpr size_t kSlotSize = 512;
constexpr uint8_t kSequenceMax = 99;

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
char g_ring[kSlotCount][kSlotSize];
// The slot of the next line, which now holds the oldest line.
uint32_t g_u32OutputStart = 0;
uint8_t g_sequence = 0;

// Kept: the name in the log begins with the path's last "/".
const char* PrintedName(const char* file) {
    const char* slash = strrchr(file, '/');
    return slash != nullptr ? slash : file;
}

// Builds one line in `slot`. Kept: byte 510 is always "\n". It ends a line that was cut; after a
// line of exactly 509 characters it adds an empty line.
void FormatLine(char* slot, const char* colour, const char* word, const char* file, int line,
                const char* function, const char* format, va_list values) {
    memset(slot, 0, kSlotSize);
    const time_t now = time(nullptr);
    struct tm local {};
    (void)localtime_r(&now, &local);
    (void)snprintf(slot, kSlotSize,
                   "%s%04d-%02d-%02d %02d:%02d:%02d [%02hhu] %04ld %6s %s:%s:%u \033[m", colour,
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                   local.tm_min, local.tm_sec, g_sequence, static_cast<long>(getpid()), word,
                   PrintedName(file), function, static_cast<unsigned>(line));
    const size_t used = strlen(slot);
    (void)vsnprintf(slot + used, kSlotSize - used, format, values);
    slot[strlen(slot)] = '\n';
    slot[kSlotSize - 2] = '\n';
    slot[kSlotSize - 1] = '\0';
}

int VTrace(const char* colour, const char* word, const char* file, int line, const char* function,
           const char* format, va_list values) {
    (void)pthread_mutex_lock(&g_lock);
    const int savedErrno = errno;
    if (g_u32OutputStart >= kSlotCount) {
        // Resets the index and unlocks first, so the assertion can log.
        const uint32_t invalid = g_u32OutputStart;
        g_u32OutputStart = 0;
        (void)pthread_mutex_unlock(&g_lock);
        KV_AssertFail(KV_TRACE_NAME, 60, "KV_Trace", "g_u32OutputStart %u is invalid", invalid);
    }
    char* slot = g_ring[g_u32OutputStart];
    FormatLine(slot, colour, word, file, line, function, format, values);
    (void)fputs(slot, stderr);
    g_u32OutputStart = (g_u32OutputStart + 1) % kSlotCount;
    g_sequence = g_sequence < kSequenceMax ? static_cast<uint8_t>(g_sequence + 1) : uint8_t{0};
    errno = savedErrno;
    return pthread_mutex_unlock(&g_lock);
}

void DumpRing() {
    const UniqueFile text(fopen(kv::kAssertText, "w+e"));
    const UniqueFile ftp(fopen(kv::kAssertFtp, "w+e"));
    if (!text || !ftp) {
        return;
    }
    for (uint32_t i = 0; i < kSlotCount; ++i) {
        const char* slot = g_ring[(g_u32OutputStart + i) % kSlotCount];
        const size_t length = strnlen(slot, kSlotSize);
        (void)fwrite(slot, 1, length, text.Get());
        (void)fwrite(slot, 1, length, ftp.Get());
    }
}

}  // namespace

int KV_Trace(uint32_t level, const char* colour, const char* word, const char* file, int line,
             const char* function, const char* format, ...) {
    (void)level;
    va_list values;
    va_start(values, format);
    const int result = VTrace(colour, word, file, line, function, format, values);
    va_end(values);
    return result;
}

void KV_TraceDump(const char* file, int line, const char* function, const char* format, ...) {
    (void)file;
    (void)line;
    (void)function;
    (void)format;
    DumpRing();
}

void KV_AssertFail(const char* file, int line, const char* function, const char* format, ...) {
    va_list values;
    va_start(values, format);
    (void)VTrace("\033[0;32;34m", "ASSERT", file, line, function, format, values);
    va_end(values);
    DumpRing();
    __assert_fail("0", file, static_cast<unsigned>(line), function);
}
