// The file system that the board's programs see. Init calls the first three functions in this
// order, inside the board's mount namespace. The runner calls MountDevices.
#pragma once

#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "vboard/boot.h"

namespace vboard {

// Builds the tree at `config.root` from a tmpfs, the host's programs and the state folder.
void BuildRoot(const BootConfig& config);

// Mounts the devices' file system `tree` and binds the devices into /dev. The runner must be
// serving them already.
void PlaceDevices(const BootConfig& config, int tree);

// Makes the tree the root of this process and of its children.
void EnterRoot(const BootConfig& config);

// Creates the devices' file system, not mounted anywhere yet, and opens the /dev/fuse that serves
// it. The runner must call this: the kernel reports processes that use a device by their ids in the
// PID namespace of the mounting process.
struct DevicesMount {
    UniqueFd fuse;
    UniqueFd tree;
};
DevicesMount MountDevices();

}  // namespace vboard
