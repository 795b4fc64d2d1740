// Opens packages that one of the trusted keys has signed, and only those. Compiled in with
// KV_TRUSTED_KEY.
//
// One pass over the file verifies the signature and keeps a digest of each block. The stream that a
// caller gets compares every block with its digest again before it returns a byte of it. So a
// program that writes to the file after the check gains nothing.
//
// Does not call sodium_init. That would seed a random generator, which can block and is not needed,
// and choose among implementations, although only the portable ones are linked.
#define KV_TRACE_NAME "kv_package_signature"
#include <fcntl.h>
#include <kv_trusted_keys.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "common/kv_le.h"
#include "common/kv_mini_trace.h"
#include "common/kv_raii.h"
#include "common/kv_text.h"
#include "flash/kv_upgrade_package.h"

namespace {

// Function name in the log.
constexpr char kOpen[] = "KV_PACKAGE_OpenSigned";

constexpr size_t kBlockSize = 16384;
static_assert(kBlockSize >= kv::kPackageHeaderSize + kv::kPackageEntrySize,
              "header and first entry are in one block");
constexpr uint64_t kNoBlock = UINT64_MAX;

using BlockDigest = std::array<uint8_t, 32>;
using PackageDigest = std::array<uint8_t, crypto_generichash_BYTES_MAX>;

// A minisign public key.
struct TrustedKey {
    uint8_t algorithm[2];
    uint8_t id[sizeof(kv::PackageSignatureBytes::keyId)];
    uint8_t key[crypto_sign_PUBLICKEYBYTES];
};

constexpr unsigned SixBits(char letter) {
    return static_cast<unsigned>(letter >= 'a'   ? letter - 'a' + 26
                                 : letter >= 'A' ? letter - 'A'
                                 : letter >= '0' ? letter - '0' + 52
                                 : letter == '+' ? 62
                                                 : 63);
}

using KeyText = std::remove_reference_t<decltype(kv::kTrustedKeys[0])>;
static_assert(sizeof(KeyText) == sizeof(TrustedKey) / 3 * 4 + 1, "length of a key in base64");

constexpr TrustedKey DecodeKey(const KeyText& text) {
    uint8_t bytes[sizeof(TrustedKey)] = {};
    for (size_t i = 0; i < sizeof(bytes) / 3; ++i) {
        const char* const four = &text[4 * i];
        const unsigned word = SixBits(four[0]) << 18 | SixBits(four[1]) << 12 |
                              SixBits(four[2]) << 6 | SixBits(four[3]);
        bytes[3 * i] = static_cast<uint8_t>(word >> 16);
        bytes[3 * i + 1] = static_cast<uint8_t>(word >> 8);
        bytes[3 * i + 2] = static_cast<uint8_t>(word);
    }
    TrustedKey key = {{bytes[0], bytes[1]}, {}, {}};
    for (size_t i = 0; i < sizeof(key.id); ++i) {
        key.id[i] = bytes[sizeof(key.algorithm) + i];
    }
    for (size_t i = 0; i < sizeof(key.key); ++i) {
        key.key[i] = bytes[sizeof(key.algorithm) + sizeof(key.id) + i];
    }
    return key;
}

constexpr auto DecodeKeys() {
    std::array<TrustedKey, std::size(kv::kTrustedKeys)> keys{};
    for (size_t i = 0; i < keys.size(); ++i) {
        keys[i] = DecodeKey(kv::kTrustedKeys[i]);
    }
    return keys;
}
constexpr auto kKeys = DecodeKeys();

// The key's ID as minisign shows it: one little-endian number.
struct KeyIdText {
    explicit KeyIdText(const uint8_t* id) {
        (void)snprintf(text, sizeof(text), "%08X%08X", kv::GetLe32(id + 4), kv::GetLe32(id));
    }
    char text[17];
};

// Where the signature's image lies in the package.
struct SignaturePlace {
    uint64_t offset = 0;
    size_t size = 0;  // 0: the package has no signature
};

// `block` is the first block of a package of `size` bytes.
SignaturePlace FindSignature(const uint8_t* block, uint64_t size) {
    if (size < kv::kPackageHeaderSize + kv::kPackageEntrySize) {
        return {};
    }
    kv::UpgradeFileHeaderBytes header;
    kv::UpgradeFileEntryBytes entry;
    memcpy(&header, block, sizeof(header));
    memcpy(&entry, block + sizeof(header), sizeof(entry));
    const uint64_t tableEnd =
        kv::kPackageHeaderSize + uint64_t{kv::kPackageEntrySize} * kv::GetLe32(header.fileNum);
    const uint32_t length = kv::GetLe32(entry.dataLen);
    if (memcmp(entry.fileName, kv::kSignatureName, sizeof(kv::kSignatureName)) != 0 ||
        kv::GetLe32(entry.checkCode) != kv::kEntryCheckCode ||
        kv::GetLe32(entry.dataOffset) != tableEnd || length < sizeof(kv::PackageSignatureBytes) ||
        length > sizeof(kv::PackageSignatureBytes) + kv::kMaxSignatureComment ||
        tableEnd + length > size) {
        return {};
    }
    return {tableEnd, length};
}

// The signature's image, collected while the package is read.
struct SignatureImage {
    SignaturePlace place;
    uint8_t bytes[sizeof(kv::PackageSignatureBytes) + kv::kMaxSignatureComment];

    // Copies the part of the image that the block at `offset` has, and zeroes it in the block.
    void TakeFrom(uint8_t* block, uint64_t offset, size_t size) {
        const uint64_t first = std::max(offset, place.offset);
        const uint64_t end = std::min(offset + size, place.offset + place.size);
        if (first < end) {
            const auto shared = static_cast<size_t>(end - first);
            memcpy(bytes + (first - place.offset), block + (first - offset), shared);
            memset(block + (first - offset), 0, shared);
        }
    }
};

bool SignedBy(const TrustedKey& key, const kv::PackageSignatureBytes& found,
              const SignatureImage& image, const PackageDigest& digest) {
    // What the second signature covers: the first one, then the comment.
    uint8_t covered[sizeof(found.signature) + kv::kMaxSignatureComment];
    const size_t commentSize = image.place.size - sizeof(found);
    memcpy(covered, found.signature, sizeof(found.signature));
    memcpy(covered + sizeof(found.signature), image.bytes + sizeof(found), commentSize);
    return crypto_sign_verify_detached(found.signature, digest.data(), digest.size(), key.key) ==
               0 &&
           crypto_sign_verify_detached(found.commentSignature, covered,
                                       sizeof(found.signature) + commentSize, key.key) == 0;
}

bool Accepted(const SignatureImage& image, const PackageDigest& digest) {
    if (image.place.size == 0) {
        KV_INFO_IN(kOpen, "the package is not signed");
        return false;
    }
    kv::PackageSignatureBytes found;
    memcpy(&found, image.bytes, sizeof(found));
    const KeyIdText id(found.keyId);
    const auto key = std::find_if(kKeys.begin(), kKeys.end(), [&found](const TrustedKey& trusted) {
        return memcmp(trusted.id, found.keyId, sizeof(found.keyId)) == 0;
    });
    if (key == kKeys.end()) {
        KV_INFO_IN(kOpen, "signed by key %s, which is not trusted", id.text);
        return false;
    }
    if (memcmp(found.algorithm, "ED", sizeof(found.algorithm)) != 0 ||
        !SignedBy(*key, found, image, digest)) {
        KV_INFO_IN(kOpen, "not what key %s signed: forged, or damaged on its way", id.text);
        return false;
    }
    KV_INFO_IN(kOpen, "signed by key %s: %s", id.text,
               kv::LogText(reinterpret_cast<const char*>(image.bytes) + sizeof(found),
                           image.place.size - sizeof(found))
                   .Get());
    return true;
}

// An open package, followed in memory by the digests of its blocks.
struct CheckedPackage {
    int fd;
    uint64_t size;
    uint64_t position;
    uint64_t loaded;  // number of the block in `block`
    uint8_t block[kBlockSize];

    uint64_t Blocks() const { return (size + kBlockSize - 1) / kBlockSize; }
    BlockDigest* Digests() { return reinterpret_cast<BlockDigest*>(this + 1); }
    size_t SizeOf(uint64_t number) const {
        return static_cast<size_t>(std::min<uint64_t>(kBlockSize, size - number * kBlockSize));
    }

    // Reads a whole block. Returns false if the file ends in it or cannot be read.
    bool Read(uint64_t number) {
        loaded = kNoBlock;
        const size_t wanted = SizeOf(number);
        size_t done = 0;
        while (done < wanted) {
            const ssize_t got = pread(fd, block + done, wanted - done,
                                      static_cast<off_t>(number * kBlockSize + done));
            if (got <= 0) {
                return false;
            }
            done += static_cast<size_t>(got);
        }
        return true;
    }

    BlockDigest Digest(uint64_t number) const {
        BlockDigest digest;
        (void)crypto_generichash(digest.data(), digest.size(), block, SizeOf(number), nullptr, 0);
        return digest;
    }

    // Loads a block. Returns false if it cannot be read or is not what was signed.
    bool Load(uint64_t number) {
        if (loaded != number) {
            if (!Read(number) || Digest(number) != Digests()[number]) {
                KV_ERROR_IN(kOpen, "the package has changed since its signature was checked");
                return false;
            }
            loaded = number;
        }
        return true;
    }

    // Finds the signature in the same bytes that it hashes, and reads the file only once.
    bool Check() {
        crypto_generichash_state whole;
        (void)crypto_generichash_init(&whole, nullptr, 0, crypto_generichash_BYTES_MAX);
        SignatureImage signature;
        for (uint64_t number = 0; number < Blocks(); ++number) {
            if (!Read(number)) {
                return false;
            }
            Digests()[number] = Digest(number);
            if (number == 0) {
                signature.place = FindSignature(block, size);
            }
            signature.TakeFrom(block, number * kBlockSize, SizeOf(number));
            (void)crypto_generichash_update(&whole, block, SizeOf(number));
        }
        PackageDigest digest;
        (void)crypto_generichash_final(&whole, digest.data(), digest.size());
        return Accepted(signature, digest);
    }
};

// What the C library's stream calls.

ssize_t ReadStream(void* cookie, char* buffer, size_t size) {
    auto* const package = static_cast<CheckedPackage*>(cookie);
    if (package->position >= package->size) {
        return 0;
    }
    const uint64_t number = package->position / kBlockSize;
    if (!package->Load(number)) {
        return -1;
    }
    const size_t from = package->position % kBlockSize;
    const size_t got = std::min(size, package->SizeOf(number) - from);
    memcpy(buffer, package->block + from, got);
    package->position += got;
    return static_cast<ssize_t>(got);
}

int SeekStream(void* cookie, off_t* offset, int whence) {
    auto* const package = static_cast<CheckedPackage*>(cookie);
    const off_t base = whence == SEEK_SET   ? 0
                       : whence == SEEK_CUR ? static_cast<off_t>(package->position)
                                            : static_cast<off_t>(package->size);
    if (*offset < -base) {
        return -1;
    }
    *offset += base;
    package->position = static_cast<uint64_t>(*offset);
    return 0;
}

int CloseStream(void* cookie) {
    auto* const package = static_cast<CheckedPackage*>(cookie);
    const int result = close(package->fd);
    free(package);
    return result;
}

}  // namespace

FILE* KV_PACKAGE_OpenSigned(const char* path, const char* mode) {
    // Non-blocking: a named pipe must be refused, not waited for.
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info = {};
    // Offsets in a package have 32 bits.
    if (!fd || fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > UINT32_MAX) {
        KV_INFO("%s is not a readable package", path);
        return nullptr;
    }
    const auto size = static_cast<uint64_t>(info.st_size);
    const size_t blocks = static_cast<size_t>((size + kBlockSize - 1) / kBlockSize);
    std::unique_ptr<void, decltype(&free)> memory(
        malloc(sizeof(CheckedPackage) + blocks * sizeof(BlockDigest)), free);
    if (!memory) {
        KV_INFO("no memory for the digests of %zu blocks", blocks);
        return nullptr;
    }
    auto* const package = static_cast<CheckedPackage*>(memory.get());
    package->fd = fd.Get();
    package->size = size;
    package->position = 0;
    package->loaded = kNoBlock;
    if (!package->Check()) {
        return nullptr;
    }
    const cookie_io_functions_t calls = {ReadStream, nullptr, SeekStream, CloseStream};
    FILE* const stream = fopencookie(package, mode, calls);
    if (stream != nullptr) {
        (void)fd.Release();
        (void)memory.release();
    }
    return stream;
}
