// The file system that the board's programs see. Init calls these functions in this order, inside
// the board's mount namespace; only MountDevices is for the runner.
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

// Creates the devices' file system, not mounted anywhere yet, and the /dev/fuse that serves it. The
// runner must call this: the kernel gives the callers' process ids in the PID namespace of the
// mounting process.
struct DevicesMount {
    UniqueFd fuse;
    UniqueFd tree;
};
DevicesMount MountDevices();

}  // namespace vboard
