#include "tests/support/package.h"

#include <random>

#include "common/kv_le.h"

namespace kv_test {

namespace {

std::string Text(const std::string& text, size_t field) {
    return text + std::string(field - text.size(), '\0');
}

std::string Number(uint32_t value) {
    uint8_t bytes[4];
    kv::PutLe32(bytes, value);
    return std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes));
}

}  // namespace

std::string BuildPackage(const std::vector<Image>& images, const PackageOptions& options) {
    const uint32_t count = options.fileNum >= 0 ? static_cast<uint32_t>(options.fileNum)
                                                : static_cast<uint32_t>(images.size());
    std::string package = Text(options.icType, 8) + Text(options.sensorType, 8) +
                          Number(options.dataLen) + Number(count);
    size_t offset = 24 + 256 * images.size();
    std::string data;
    for (const Image& image : images) {
        package += Text(image.name, 128) + Number(static_cast<uint32_t>(image.bytes.size())) +
                   Number(static_cast<uint32_t>(offset)) + Number(0) + Number(image.checkCode) +
                   std::string(112, '\0');
        offset += image.bytes.size();
        data += image.bytes;
    }
    return package + data;
}

std::string Noise(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

}  // namespace kv_test
