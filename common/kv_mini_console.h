// Debugging console: runs commands that a developer types in the device's shell. They arrive over
// the platform's command link ("/tmp/bin/cmd_link_snd" in, "/tmp/bin/cmd_link_ack" out). Nothing in
// this program calls KV_Console_Init or KV_Console_DeInit; to use the console, call them with a
// debugger. The console prints its messages on standard output.
//
// A message runs no command if its argument count is negative or above 8, or if its arguments do
// not end inside it. The answer is then only "reply:\n", or "reply:\nNo Such Command! try ''\n" as
// long as no message has named a known command.
#pragma once

// Opens the pipes, links each command's name to the platform's client and starts the console
// thread. Any thread, one at a time; does not block. Returns 0, also from a second call, which does
// nothing. Returns the negative result of open if a pipe is missing. Aborts if the thread cannot be
// created.
int KV_Console_Init(void);

// Stops the thread. Blocks for up to one second and for a command in progress. The pipes stay open
// and the links stay. Returns 0, or -1 with a log line if the console is not running. The console
// cannot be started again.
int KV_Console_DeInit(void);

// Links one command name to the client and replaces an existing file. Returns the result of
// symlink; prints a failure.
int KV_Console_AddCmdLink(const char* name);
