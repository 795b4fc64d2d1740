// The file system tree that the board's programs see. Used by init, inside the board's own mount
// namespace, in the order of the declarations; except for MountDevices.
#pragma once

#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "vboard/boot.h"

namespace vboard {

// Builds the tree at `config.root` from a tmpfs, the host's programs, the state folder.
void BuildRoot(const BootConfig& config);

// Puts the devices' file system `tree` into it, and the devices where programs look for them. The
// runner must be serving them already.
void PlaceDevices(const BootConfig& config, int tree);

// Makes the tree the root of this process and of all that it starts.
void EnterRoot(const BootConfig& config);

// The devices' file system, mounted nowhere yet, and the /dev/fuse on which it is served. For the
// runner: the kernel counts the callers' process ids in the PID namespace of whoever mounts.
struct DevicesMount {
    UniqueFd fuse;
    UniqueFd tree;
};
DevicesMount MountDevices();

}  // namespace vboard
