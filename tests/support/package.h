// Upgrade packages built byte by byte, right ones and wrong ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv_test {

struct Image {
    std::string name;
    std::string bytes;
    uint32_t checkCode = 0x00012345;
};

struct PackageOptions {
    std::string icType = "PRT7K";
    std::string sensorType = "38QX";
    uint32_t dataLen = 1;
    // Taken for the header's count when not negative.
    int fileNum = -1;
};

// Header, entries and images, one directly behind the other.
std::string BuildPackage(const std::vector<Image>& images, const PackageOptions& options = {});

// `size` bytes that differ from place to place, the same for the same seed.
std::string Noise(size_t size, uint32_t seed);

}  // namespace kv_test
