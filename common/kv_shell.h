// Shell commands. Every command of the program starts here with a clean environment: default signal
// actions, an empty signal mask, and no inherited descriptors but standard input, output and error.
#pragma once

// Runs `command` through "/bin/sh -c" and waits for that child alone, so several threads may run
// commands at once. Any thread; blocks until the command ends.
//   status  receives the wait status if the result is 0; may be null. A shell that could not be
//           executed counts as exit status 127.
// Returns 0 if the child was waited for, 1 if no child could be created (with errno), -1 if waiting
// failed.
int KV_ShellRun(const char* command, int* status);

// The same, but waits at most `timeoutMs` milliseconds (negative: no limit). If the command takes
// longer, returns -1 with errno ETIMEDOUT. The command continues, and nobody waits for it any more.
int KV_ShellRunFor(const char* command, int timeoutMs, int* status);

// KV_ShellRun with the supervisor's echo before it: "# <command>\r\n" on standard output. For
// commands whose result does not matter.
void KV_ShellEcho(const char* command);

// The same with a printf format. Commands are cut at 255 characters.
void KV_ShellEchoFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
