// The board's own scripts (vboard/platform/), embedded in the program.
#pragma once

#include <string>
#include <vector>

namespace vboard {

struct PlatformFile {
    std::string name;
    std::string text;
};

const std::vector<PlatformFile>& PlatformFiles();

}  // namespace vboard
