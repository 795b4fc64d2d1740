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

// The name of entry 0 of a signed package. It selects no partition, so a program without trusted
// keys skips the entry. The entry's image starts directly after the table: a PackageSignatureBytes,
// then the trusted comment. docs/package-format.md says what is signed.
constexpr char kSignatureName[] = "signature";

// A minisign signature without its text form.
struct PackageSignatureBytes {
    uint8_t algorithm[2];  // "ED": Ed25519 over the BLAKE2b-512 digest
    uint8_t keyId[8];
    uint8_t signature[64];         // of the package with the signature's image zeroed
    uint8_t commentSignature[64];  // of `signature`, then the trusted comment
};
static_assert(sizeof(PackageSignatureBytes) == 138, "size of a package signature");
constexpr size_t kMaxSignatureComment = 255;

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

// Opens a signed package for reading. First reads the whole file, blocks for that long, and logs
// the key that has signed it. The stream then gives only bytes that were signed: if the file
// changes meanwhile, reading fails with an ERROR in the log. Returns null if the file cannot be
// opened, or if no trusted key has signed it. `mode` is "r" with any of fopen's letters for
// reading. Only in a program with trusted keys. Any thread; one thread at a time uses the stream.
FILE* KV_PACKAGE_OpenSigned(const char* path, const char* mode);

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

namespace kv {

// Whether this program accepts only packages that a compiled-in key has signed, and how it opens
// them. Constants, so a program without keys contains none of the code for signatures.
#ifdef KV_SIGNED_ONLY
constexpr bool kSignedOnly = true;
constexpr auto kOpenPackage = KV_PACKAGE_OpenSigned;
#else
constexpr bool kSignedOnly = false;
constexpr auto kOpenPackage = fopen;
#endif

}  // namespace kv
