// Upgrade package: layout, reading and acceptance. A package is a 24-byte header, `fileNum` entries
// of 256 bytes behind it, and image data anywhere in the file. Integers are 32-bit little-endian,
// texts NUL-terminated ASCII.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kv {

constexpr uint32_t kEntryCheckCode = 0x00012345;

// As on disk; integers are bytes here (common/kv_le.h reads them).
struct UpgradeFileHeaderBytes {
    char icType[8];
    char sensorType[8];
    uint8_t upgrateDataLen[4];
    uint8_t fileNum[4];
};
static_assert(sizeof(UpgradeFileHeaderBytes) == 24, "size of the package header");

struct UpgradeFileEntryBytes {
    char fileName[128];
    uint8_t dataLen[4];
    uint8_t dataOffset[4];
    uint8_t reserved[4];
    uint8_t checkCode[4];
    uint8_t tail[112];
};
static_assert(sizeof(UpgradeFileEntryBytes) == 256, "size of a package entry");
static_assert(offsetof(UpgradeFileEntryBytes, checkCode) == 140, "offset of the check code");

constexpr size_t kPackageHeaderSize = sizeof(UpgradeFileHeaderBytes);
constexpr size_t kPackageEntrySize = sizeof(UpgradeFileEntryBytes);

}  // namespace kv

// In memory: texts always terminated (one byte more than on disk), integers in host order.
struct UpgradeFileHeader {
    char icType[9];
    char sensorType[9];
    uint32_t upgrateDataLen;
    uint32_t fileNum;
};

struct UpgradeFileEntry {
    char fileName[129];
    uint32_t dataLen;
    uint32_t dataOffset;
    uint32_t checkCode;
};

// Reads the header at the start of the file. Returns the number of bytes read; anything but
// kv::kPackageHeaderSize leaves *header untouched.
size_t KV_PACKAGE_ReadHeader(FILE* package, UpgradeFileHeader* header);

// Reads entry `index` (from 0). Bytes that the file does not hold read as zero.
void KV_PACKAGE_ReadEntry(FILE* package, uint32_t index, UpgradeFileEntry* entry);

// Whether this device may flash the package: both type texts equal the device's as whole strings,
// length and entry count are not zero.
bool KV_PACKAGE_HeaderAccepted(const UpgradeFileHeader* header);

// Whether `fileName` selects a partition: the partition's name is a prefix of it.
bool KV_PACKAGE_NameSelects(const char* fileName, const char* partitionName);
