// Valid and invalid bytes of the mini protocol and the package, as a client knows them, made
// without the program's own helpers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv_test {

// `value` in `size` bytes, little-endian.
std::string Little(uint32_t value, size_t size = 4);
// `text`, padded with zeros to `size` bytes.
std::string Padded(std::string text, size_t size);

// A 32-byte request.
std::string Frame(uint16_t command, uint32_t dataLen = 0, uint32_t count = 0, uint16_t kind = 0,
                  uint32_t session = 0);
// The 32-byte header of a reply.
std::string ReplyHeader(uint16_t command, uint16_t status, uint32_t session, uint32_t dataLen = 0);
// The device information record that follows the reply's header.
std::string DeviceRecord(const std::string& serial);
// The little-endian number at `at`; 0 if the bytes end before it.
uint32_t WordAt(const std::string& bytes, size_t at);
inline uint32_t SessionOf(const std::string& reply) {
    return WordAt(reply, 8);
}

// The upgrade request for a package of `packageSize` bytes and its trailer.
std::string UpgradeFrame(size_t packageSize);
// "MD5:", the package's digest in lowercase hex and a newline: 37 bytes.
std::string Trailer(const std::string& package);

struct Image {
    std::string name;
    std::string bytes;
    uint32_t checkCode = 0x00012345;
};

struct PackageOptions {
    std::string icType = "PRT7K";
    std::string sensorType = "38QX";
    uint32_t dataLen = 1;
    // The header's number of files, if not negative.
    int fileNum = -1;
};

// Header, entries and images without gaps.
std::string BuildPackage(const std::vector<Image>& images, const PackageOptions& options = {});

// `size` bytes of noise, the same for the same seed.
std::string Noise(size_t size, uint32_t seed);

}  // namespace kv_test
