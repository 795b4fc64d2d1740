// Programs that a test of the virtual board's devices runs as processes of their own.
#pragma once

#include <string>

// Descriptors that the client "namespaced" finds open.
constexpr int kClientFuseFd = 100;
constexpr int kClientReadyFd = 101;

// A page that is at the same address in every process that asks for it, with contents of its own.
// Once a process; nullptr on failure.
int* IntAtFixedAddress();

// Mounts the file system of an open /dev/fuse; false and errno on failure.
bool MountFuse(int fuseFd, const std::string& directory);

// Runs one client on the devices in `directory`: 0, or the line of board_clients.cpp that went
// wrong. `more` is the client's own argument.
int RunBoardClient(const std::string& name, const std::string& directory, const std::string& more);
