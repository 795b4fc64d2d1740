// Debugging console: serves commands that a developer types on the device's shell, over the
// platform's command link ("/tmp/bin/cmd_link_snd" in, "/tmp/bin/cmd_link_ack" out). Nothing in
// this program calls KV_Console_Init or KV_Console_DeInit: who wants the console calls them with a
// debugger. It reports on standard output.
//
// A message whose argument count is negative or above 8, or whose arguments do not end inside it,
// runs no command and is answered with "reply:\n" alone.
#pragma once

// Opens the pipes, makes a link to the platform's client for each command and starts the console
// thread. Any thread, one at a time; does not block. 0, also without doing anything from the second
// call on; the negative result of open when a pipe is missing. Aborts when the thread cannot be
// created.
int KV_Console_Init(void);

// Stops the thread: blocks for up to one second and for a command in progress. Pipes and links
// stay. 0, or -1 traced when the console does not run. There is no way back to serving.
int KV_Console_DeInit(void);

// Makes the link for one command name, replacing what is there. The result of symlink; a failure is
// printed.
int KV_Console_AddCmdLink(const char* name);
