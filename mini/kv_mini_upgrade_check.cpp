// The checks that a received package must pass before it goes to the flash writer.
#define KV_TRACE_NAME "kv_mini_upgrade"
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_text.h"
#include "flash/kv_upgrade_package.h"
#include "hv/md5.h"
#include "mini/kv_mini_frame.h"
#include "mini/kv_mini_upgrade.h"

namespace {

constexpr size_t kDigestSize = 16;
// Function names in the log for the parts of the two checks.
constexpr char kMd5Check[] = "__KV_CheckUpgradeFileMd5";
constexpr char kHeaderCheck[] = "__KV_CheckUpgradeFileHeader";

// Reads the digest that the sender announced. Returns 0, or -1 if there is none.
int ReadExpectedDigest(char (&digest)[kv::kMd5HexSize + 1]) {
    constexpr size_t kSearched = 128;
    const UniqueFile file(fopen(kv::kMd5Path, "rbe"));
    if (!file) {
        KV_INFO_IN(kMd5Check, "fopen %s fail!", kv::kMd5Path);
        return -1;
    }
    // Zero padding: a truncated digest compares unequal.
    char text[kSearched + kv::kMd5HexSize] = {};
    const size_t got = fread(text, 1, kSearched, file.Get());
    const char* tag = static_cast<const char*>(memmem(text, got, kv::kMd5Tag, kv::kMd5TagSize));
    if (tag == nullptr) {
        KV_INFO_IN(kMd5Check, "%s not contain MD5", kv::kMd5Path);
        return -1;
    }
    memcpy(digest, tag + kv::kMd5TagSize, kv::kMd5HexSize);
    digest[kv::kMd5HexSize] = '\0';
    KV_INFO_IN(kMd5Check, "corMd5 =%s", kv::LogText(digest).Get());
    return 0;
}

int DigestPackage(char (&digest)[kv::kMd5HexSize + 1]) {
    const UniqueFile file(fopen(kv::kPackagePath, "rbe"));
    if (!file) {
        KV_ERROR_IN(kMd5Check, "open file %s failed", kv::kPackagePath);
        return -1;
    }
    HV_MD5_CTX context;
    HV_MD5Init(&context);
    uint8_t block[1024];
    size_t got = 0;
    while ((got = fread(block, 1, sizeof(block), file.Get())) > 0) {
        HV_MD5Update(&context, block, static_cast<unsigned>(got));
    }
    uint8_t raw[kDigestSize];
    HV_MD5Final(&context, raw);
    for (size_t i = 0; i < kDigestSize; ++i) {
        (void)snprintf(digest + 2 * i, 3, "%02x", raw[i]);
    }
    KV_INFO_IN(kMd5Check, "genMd5 =%s", digest);
    return 0;
}

bool PackageHeaderFits() {
    const UniqueFile file(fopen(kv::kPackagePath, "rbe"));
    if (!file) {
        KV_ERROR_IN(kHeaderCheck, "open %s error", kv::kPackagePath);
        return false;
    }
    UpgradeFileHeader header = {};
    const size_t got = KV_PACKAGE_ReadHeader(file.Get(), &header);
    if (got != kv::kPackageHeaderSize) {
        KV_ERROR_IN(kHeaderCheck, "read upgrate header error return is %d", static_cast<int>(got));
        return false;
    }
    KV_DEBUG_IN(kHeaderCheck,
                "ic type is %s,sensor man is %s ugHeader.upgrateDataLen %d ugHeader.fileNum %d",
                kv::LogText(header.icType).Get(), kv::LogText(header.sensorType).Get(),
                static_cast<int>(header.upgrateDataLen), static_cast<int>(header.fileNum));
    if (!KV_PACKAGE_HeaderAccepted(&header)) {
        KV_ERROR_IN(kHeaderCheck, "Device type or DeviceManufacturers error");
        return false;
    }
    return true;
}

}  // namespace

int __KV_CheckUpgradeFileMd5(void) {
    char expected[kv::kMd5HexSize + 1];
    char computed[kv::kMd5HexSize + 1];
    if (ReadExpectedDigest(expected) != 0 || DigestPackage(computed) != 0) {
        return -1;
    }
    return strncmp(expected, computed, kv::kMd5HexSize) == 0 ? 0 : -1;
}

int __KV_CheckUpgradeFileHeader(void) {
    if (PackageHeaderFits()) {
        return 0;
    }
    (void)unlink(kv::kPackagePath);
    return -1;
}

#ifdef KV_SIGNED_ONLY
int __KV_CheckUpgradeFileSignature(void) {
    const UniqueFile package(kv::kOpenPackage(kv::kPackagePath, "rbe"));
    return package ? 0 : -1;
}
#endif
