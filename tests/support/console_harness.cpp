// Runs only the debugging console, instead of the supervisor, on a board.
#include <unistd.h>

#include <cstdio>

#include "common/kv_mini_console.h"

int main() {
    (void)setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    (void)printf("console started: %d\n", KV_Console_Init());
    for (;;) {
        (void)pause();
    }
}
