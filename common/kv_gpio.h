// GPIO lines through the board's sysfs value files. The platform exports and configures the lines.
// Any thread; the calls block only for the kernel's file operations.
#pragma once

// Reads line `gpio` into *value: 0 for the character '0', 1 for anything else, an empty file or a
// failed read. Returns 0, or the negative result of open, reported with perror; *value is then
// unchanged.
int KV_GPIO_GetValue(int gpio, int* value);

// Opens the line's value file with `flags` and O_NONBLOCK, for callers that poll it. Returns the
// descriptor, close-on-exec, which the caller closes, or the negative result of open, reported with
// perror. Nothing in this program calls it.
int KV_GPIO_FdOpen(int gpio, int flags);
