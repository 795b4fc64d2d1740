// /sbin/command_link of the board: the client of the supervisor's debugging console. The console
// creates a link to it for each command. Run under such a name, it sends the command with its
// arguments and prints the reply.
#pragma once

namespace vboard {

// Whether this process was started as the client.
bool IsCommandLink();

// Sends one command message and prints the reply, for which it waits up to 10 s. Before that it
// waits until other clients are done. Returns the exit status: 0, 1 with one sentence on standard
// error, or 101 for a command that does not fit into a message.
int CommandLinkMain(int argc, char** argv);

}  // namespace vboard
