// The file system tree that the board's programs see. Used by init, inside the board's own mount
// namespace, in the order of the declarations.
#pragma once

#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "vboard/boot.h"

namespace vboard {

// Builds the tree at `config.root` from a tmpfs, the host's programs, the state folder.
void BuildRoot(const BootConfig& config);

// Mounts the devices' file system; the result is the /dev/fuse on which the runner serves it.
UniqueFd MountDevices(const BootConfig& config);

// Puts the devices where programs look for them. The runner must be serving them already.
void BindDevices(const BootConfig& config);

// Makes the tree the root of this process and of all that it starts.
void EnterRoot(const BootConfig& config);

}  // namespace vboard
