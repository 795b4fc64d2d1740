#include "tests/support/wire.h"

#include <md5.h>

#include <random>

namespace kv_test {

std::string Little(uint32_t value, size_t size) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> (8 * i));
    }
    return bytes;
}

std::string Padded(std::string text, size_t size) {
    text.resize(size);
    return text;
}

std::string Frame(uint16_t command, uint32_t dataLen, uint32_t count, uint16_t kind,
                  uint32_t session) {
    return Padded(Little(kind, 2) + Little(0, 2) + Little(command, 2) + Little(0, 2) +
                      Little(session) + Little(dataLen) + Little(count),
                  32);
}

std::string ReplyHeader(uint16_t command, uint16_t status, uint32_t session, uint32_t dataLen) {
    return Padded(Little(0, 2) + Little(0x0101, 2) + Little(command, 2) + Little(status, 2) +
                      Little(session) + Little(dataLen) + Little(dataLen == 0 ? 0 : 1),
                  32);
}

std::string DeviceRecord(const std::string& serial) {
    return Padded(std::string("\0\x1B", 2), 4) + Padded("PRT7K", 64) + Padded(serial, 100) +
           Padded("ZH8C4", 200) + Padded("PRT7K_38QX_QJT_V1.0.0.241127_R1", 64) +
           Padded("PRT7K", 16) + Padded("38QX", 16);
}

uint32_t WordAt(const std::string& bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4 && at + 4 <= bytes.size(); ++i) {
        word |= uint32_t{static_cast<uint8_t>(bytes[at + i])} << (8 * i);
    }
    return word;
}

std::string UpgradeFrame(size_t packageSize) {
    return Frame(0x2002, static_cast<uint32_t>(packageSize) + 37, 1);
}

std::string Trailer(const std::string& package) {
    char hex[33];
    (void)MD5Data(reinterpret_cast<const uint8_t*>(package.data()), package.size(), hex);
    return std::string("MD5:") + hex + "\n";
}

std::string BuildPackage(const std::vector<Image>& images, const PackageOptions& options) {
    const uint32_t count = options.fileNum >= 0 ? static_cast<uint32_t>(options.fileNum)
                                                : static_cast<uint32_t>(images.size());
    std::string package = Padded(options.icType, 8) + Padded(options.sensorType, 8) +
                          Little(options.dataLen) + Little(count);
    size_t offset = 24 + 256 * images.size();
    std::string data;
    for (const Image& image : images) {
        package += Padded(image.name, 128) + Little(static_cast<uint32_t>(image.bytes.size())) +
                   Little(static_cast<uint32_t>(offset)) + Little(0) + Little(image.checkCode) +
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
