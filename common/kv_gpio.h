// GPIO lines through the board's sysfs value files. The platform exports and configures the lines;
// nothing here does. Any thread; the calls block as long as the kernel's file operations do.
#pragma once

// Reads line `gpio` once into *value: 0 for the character '0', 1 for anything else (an empty file
// too). 0, or the negative result of open, reported with perror; *value is untouched then.
int KV_GPIO_GetValue(int gpio, int* value);

// Opens the line's value file with `flags` and O_NONBLOCK, for callers that poll it. The
// descriptor, close-on-exec and the caller's to close, or the negative result of open, reported
// with perror. Nothing in this program calls it.
int KV_GPIO_FdOpen(int gpio, int flags);
