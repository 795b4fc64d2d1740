// /sbin/command_link of the board: the client of the supervisor's debugging console. The console
// makes a link to it for each of its commands; run under such a name it sends the command with its
// arguments and prints the answer.
#pragma once

namespace vboard {

// Whether this process was started as the client.
bool IsCommandLink();

// Sends one command message and prints the reply. Waits for up to 10 s. Returns the exit status:
// 0, 1 with one sentence on standard error, 101 for a command that no message can carry.
int CommandLinkMain(int argc, char** argv);

}  // namespace vboard
