#include "flash/kv_upgrade_package.h"

#include <sys/types.h>

#include <cstring>

#include "common/kv_le.h"
#include "common/kv_platform.h"

namespace {

// Copies a text field and adds a NUL after it, so a field without a NUL is terminated too.
template <size_t Size>
void CopyText(char (&text)[Size + 1], const char (&field)[Size]) {
    memcpy(text, field, Size);
    text[Size] = '\0';
}

}  // namespace

size_t KV_PACKAGE_ReadHeader(FILE* package, UpgradeFileHeader* header) {
    kv::UpgradeFileHeaderBytes bytes;
    const size_t got = fread(&bytes, 1, sizeof(bytes), package);
    if (got != sizeof(bytes)) {
        return got;
    }
    CopyText(header->icType, bytes.icType);
    CopyText(header->sensorType, bytes.sensorType);
    header->upgrateDataLen = kv::GetLe32(bytes.upgrateDataLen);
    header->fileNum = kv::GetLe32(bytes.fileNum);
    return got;
}

void KV_PACKAGE_ReadEntry(FILE* package, uint32_t index, UpgradeFileEntry* entry) {
    kv::UpgradeFileEntryBytes bytes = {};
    const uint64_t offset = kv::kPackageHeaderSize + uint64_t{kv::kPackageEntrySize} * index;
    (void)fseeko(package, static_cast<off_t>(offset), SEEK_SET);
    (void)fread(&bytes, 1, sizeof(bytes), package);
    CopyText(entry->fileName, bytes.fileName);
    entry->dataLen = kv::GetLe32(bytes.dataLen);
    entry->dataOffset = kv::GetLe32(bytes.dataOffset);
    entry->checkCode = kv::GetLe32(bytes.checkCode);
}

bool KV_PACKAGE_HeaderAccepted(const UpgradeFileHeader* header) {
    return strcmp(header->icType, kv::kIcType) == 0 &&
           strcmp(header->sensorType, kv::kSensorType) == 0 && header->upgrateDataLen != 0 &&
           header->fileNum != 0;
}

bool KV_PACKAGE_NameSelects(const char* fileName, const char* partitionName) {
    return strncmp(fileName, partitionName, strlen(partitionName)) == 0;
}
