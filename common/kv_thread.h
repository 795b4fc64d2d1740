// The one place that starts threads.
#pragma once

#include <pthread.h>

#include <cstddef>

// Stack size of threads that are known to need little.
constexpr size_t kSmallStack = 65536;

// Runs `procedure(argument)` on a new thread with `stackSize` bytes of stack (0: the system's
// default). `thread` receives the handle, and the caller joins it; null creates a detached thread.
// Returns 0 or an errno value. Most callers pass that to KV_ASSERT_FAIL("pthread create failed:%s",
// ...). Any thread; does not block.
inline int KV_ThreadStart(pthread_t* thread, size_t stackSize, void* (*procedure)(void*),
                          void* argument) {
    pthread_attr_t attributes;
    pthread_t detached;
    (void)pthread_attr_init(&attributes);
    if (stackSize != 0) {
        (void)pthread_attr_setstacksize(&attributes, stackSize);
    }
    if (thread == nullptr) {
        (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        thread = &detached;
    }
    const int error = pthread_create(thread, &attributes, procedure, argument);
    (void)pthread_attr_destroy(&attributes);
    return error;
}
