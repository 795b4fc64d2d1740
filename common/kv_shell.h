// Shell commands. Every command of the program goes through here, so that each child starts as a
// program expects to start: default signal dispositions, an empty signal mask, and none of the
// parent's descriptors but standard input, output and error.
#pragma once

// Runs `command` through "/bin/sh -c" and waits for that child alone, so commands may run on
// several threads at once. Any thread; blocks until the command has ended.
//   status  receives the wait status when the result is 0; may be null. A shell that could not be
//           executed counts as one that ended with status 127.
// Returns 0 when the child was waited for, 1 when no child could be created (errno tells why), -1
// when waiting failed.
int KV_ShellRun(const char* command, int* status);

// The same, but waits `timeoutMs` milliseconds at most (negative: without limit). A command that
// takes longer gives -1 with errno ETIMEDOUT; it goes on, and nobody waits for it any more.
int KV_ShellRunFor(const char* command, int timeoutMs, int* status);

// The first with the supervisor's echo in front: "# <command>\r\n" on standard output. For commands
// whose outcome nobody acts upon.
void KV_ShellEcho(const char* command);

// As above, with a printf format; commands are cut at 255 characters.
void KV_ShellEchoFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
