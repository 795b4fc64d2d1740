// Trace log: each call writes one coloured, time-stamped line to standard error. The last three
// lines are kept for an assertion dump. Every module logs through it.
//
// A file that logs defines KV_TRACE_NAME, its name in the log, before it includes this header:
//
//     #define KV_TRACE_NAME "kv_fullhan_flash"
//     #include "common/kv_mini_trace.h"
//
// and then calls KV_ERROR(...), KV_FAILED(...), KV_INFO(...) or KV_DEBUG(...) with a printf format.
// Write the text without "\n" at its end; with one, an empty line follows in the log.
//     KV_x_AT(line, ...)        for messages whose line number is part of the log's interface
//     KV_x_IN(function, ...)    for a helper that logs under its caller's name
#pragma once

#include <cstdint>

#define KV_LEVEL_ASSERT 0U, "\033[0;32;34m", "ASSERT"
#define KV_LEVEL_ERROR 2U, "\033[0;32;31m", "ERROR"
#define KV_LEVEL_FAILED 3U, "\033[1;31m", "FAILED"
#define KV_LEVEL_INFO 4U, "\033[1;33m", "INFO"
#define KV_LEVEL_DEBUG 5U, "\033[0;32;32m", "DEBUG"

#define KV_ERROR(...) KV_Trace(KV_LEVEL_ERROR, KV_TRACE_NAME, __LINE__, __func__, __VA_ARGS__)
#define KV_FAILED(...) KV_Trace(KV_LEVEL_FAILED, KV_TRACE_NAME, __LINE__, __func__, __VA_ARGS__)
#define KV_INFO(...) KV_Trace(KV_LEVEL_INFO, KV_TRACE_NAME, __LINE__, __func__, __VA_ARGS__)
#define KV_DEBUG(...) KV_Trace(KV_LEVEL_DEBUG, KV_TRACE_NAME, __LINE__, __func__, __VA_ARGS__)

#define KV_ERROR_AT(line, ...) KV_Trace(KV_LEVEL_ERROR, KV_TRACE_NAME, line, __func__, __VA_ARGS__)
#define KV_FAILED_AT(line, ...) \
    KV_Trace(KV_LEVEL_FAILED, KV_TRACE_NAME, line, __func__, __VA_ARGS__)
#define KV_INFO_AT(line, ...) KV_Trace(KV_LEVEL_INFO, KV_TRACE_NAME, line, __func__, __VA_ARGS__)
#define KV_DEBUG_AT(line, ...) KV_Trace(KV_LEVEL_DEBUG, KV_TRACE_NAME, line, __func__, __VA_ARGS__)

#define KV_ERROR_IN(function, ...) \
    KV_Trace(KV_LEVEL_ERROR, KV_TRACE_NAME, __LINE__, function, __VA_ARGS__)
#define KV_FAILED_IN(function, ...) \
    KV_Trace(KV_LEVEL_FAILED, KV_TRACE_NAME, __LINE__, function, __VA_ARGS__)
#define KV_INFO_IN(function, ...) \
    KV_Trace(KV_LEVEL_INFO, KV_TRACE_NAME, __LINE__, function, __VA_ARGS__)
#define KV_DEBUG_IN(function, ...) \
    KV_Trace(KV_LEVEL_DEBUG, KV_TRACE_NAME, __LINE__, function, __VA_ARGS__)

// For conditions that must not happen; in practice, a thread that cannot be created. Does not
// return.
#define KV_ASSERT_FAIL(...) KV_AssertFail(KV_TRACE_NAME, __LINE__, __func__, __VA_ARGS__)
#define KV_ASSERT_FAIL_AT(line, ...) KV_AssertFail(KV_TRACE_NAME, line, __func__, __VA_ARGS__)

// Writes one line to standard error: header, message, "\n". Longer lines are cut to 511 bytes.
//   level, colour, word  one of the KV_LEVEL_ triples; no level is filtered out
//   file                 the caller's trace name; only its last component is printed, including the
//                        "/" before it if there is one
// Any thread, at any time, even before initialisation and during exit, but not from a signal
// handler, because it takes a lock. Blocks as long as standard error blocks. Allocates nothing,
// unless the C library does so when it reads the time zone for the first line. Keeps errno. Returns
// 0.
int KV_Trace(uint32_t level, const char* colour, const char* word, const char* file, int line,
             const char* function, const char* format, ...) __attribute__((format(printf, 7, 8)));

// Writes the last three lines, oldest first, to "etc/configs/assert.txt" and
// "etc/configs/assert.ftp" below the working directory. Writes nothing if either cannot be opened;
// the other one is then left empty. The arguments are those of KV_Trace and are not used. Takes no
// lock: call it only on the thread that is about to abort. Nothing in this program calls it;
// KV_AssertFail dumps by itself.
void KV_TraceDump(const char* file, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Logs at ASSERT level, dumps the last lines and aborts through the C library's assertion of "0".
// Any thread.
[[noreturn]] void KV_AssertFail(const char* file, int line, const char* function,
                                const char* format, ...) __attribute__((format(printf, 4, 5)));
