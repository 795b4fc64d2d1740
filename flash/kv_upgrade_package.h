// Upgrade package: layout, reading and acceptance. A package is a 24-byte header, `fileNum` entries
// of 256 bytes, and image data anywhere in the file. Integers are 32-bit little-endian, texts
// NUL-terminated ASCII. Any thread may call the functions, one at a time for each file; they block
// only while they read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kv {

constexpr uint32_t kEntryCheckCode = 0x00012345;

// Layout in the file. Integers are byte arrays (common/kv_le.h reads them).
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

// Layout in memory: texts always terminated (one byte longer than in the file), integers in host
// order.
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

// Reads the header from the file's current position, which must be its start. Returns the number of
// bytes read. *header changes only if that is kv::kPackageHeaderSize.
size_t KV_PACKAGE_ReadHeader(FILE* package, UpgradeFileHeader* header);

// Reads entry `index` (from 0). Bytes missing in the file read as zero.
void KV_PACKAGE_ReadEntry(FILE* package, uint32_t index, UpgradeFileEntry* entry);

// Whether this device may flash the package: both type texts equal the device's exactly, and length
// and number of entries are not zero.
bool KV_PACKAGE_HeaderAccepted(const UpgradeFileHeader* header);

// Whether `fileName` selects a partition: it begins with the partition's name.
bool KV_PACKAGE_NameSelects(const char* fileName, const char* partitionName);
