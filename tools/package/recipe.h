// A recipe: a small text file that describes how to build a package.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/named_file.h"

namespace kvtool {

// Paths are as written in the recipe, relative to its folder.
struct Recipe {
    std::string path;
    std::optional<std::string> ic;
    std::optional<std::string> sensor;
    std::string layout;              // file of partition sizes, empty: none
    std::vector<std::string> sizes;  // NAME=BYTES
    std::vector<NamedFile> images;   // in the order of the table

    // Converts a path of the recipe to one relative to the current folder.
    std::string Resolve(const std::string& file) const;
};

// Reads "KEY = VALUE" lines: ic, sensor and layout at most once, size and image any number of
// times. Throws ToolError(kUsage), which names file and line.
Recipe ReadRecipe(const std::string& path);

}  // namespace kvtool
