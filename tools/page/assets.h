// The files of web/, embedded at build time.
#pragma once

#include <string_view>
#include <vector>

namespace kvtool::page {

struct Asset {
    std::string_view name;  // "index.html"
    std::string_view bytes;
};

const std::vector<Asset>& Assets();

}  // namespace kvtool::page
