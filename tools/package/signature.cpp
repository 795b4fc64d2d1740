#include "tools/package/signature.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "tools/base/errors.h"
#include "tools/base/files.h"

namespace kvtool {

namespace {

constexpr char kUntrusted[] = "untrusted comment: ";
constexpr char kTrusted[] = "trusted comment: ";

using KeyId = std::array<uint8_t, 8>;

struct PublicKey {
    uint8_t algorithm[2];  // "Ed"
    KeyId id;
    uint8_t key[crypto_sign_PUBLICKEYBYTES];
};

struct SignatureBlock {
    uint8_t algorithm[2];  // "Ed": of the file itself, "ED": of its BLAKE2b digest
    KeyId id;
    uint8_t signature[crypto_sign_BYTES];
};

[[noreturn]] void Refuse(const std::string& file, const std::string& why) {
    throw ToolError(ExitCode::kRefused, Printable(file) + ": " + why);
}

std::vector<std::string> TextLines(const Bytes& bytes) {
    std::vector<std::string> lines(1);
    for (const uint8_t byte : bytes) {
        if (byte == '\n') {
            lines.emplace_back();
        } else if (byte != '\r') {
            lines.back() += static_cast<char>(byte);
        }
    }
    return lines;
}

template <typename Block>
bool Decode(const std::string& base64, Block* block) {
    size_t size = 0;
    return sodium_base642bin(reinterpret_cast<unsigned char*>(block), sizeof *block, base64.c_str(),
                             base64.size(), nullptr, &size, nullptr,
                             sodium_base64_VARIANT_ORIGINAL) == 0 &&
           size == sizeof *block;
}

bool StartsWith(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

PublicKey ReadKey(const std::string& file) {
    const std::vector<std::string> lines = TextLines(ReadWholeFile(file));
    PublicKey key{};
    if (lines.size() < 2 || !StartsWith(lines[0], kUntrusted) || !Decode(lines[1], &key) ||
        memcmp(key.algorithm, "Ed", 2) != 0) {
        Refuse(file, "not a minisign public key");
    }
    return key;
}

// minisign shows the bytes as one little-endian number.
std::string IdText(KeyId id) {
    std::reverse(id.begin(), id.end());
    return Hex(id.data(), id.size());
}

bool SignsPackage(const SignatureBlock& block, const PublicKey& key, const Bytes& package) {
    if (memcmp(block.algorithm, "Ed", 2) == 0) {
        return crypto_sign_verify_detached(block.signature, package.data(), package.size(),
                                           key.key) == 0;
    }
    std::array<uint8_t, crypto_generichash_BYTES_MAX> digest{};
    return memcmp(block.algorithm, "ED", 2) == 0 &&
           crypto_generichash(digest.data(), digest.size(), package.data(), package.size(), nullptr,
                              0) == 0 &&
           crypto_sign_verify_detached(block.signature, digest.data(), digest.size(), key.key) == 0;
}

bool SignsComment(const SignatureBlock& block, const PublicKey& key, const std::string& comment,
                  const std::array<uint8_t, crypto_sign_BYTES>& signature) {
    Bytes text(block.signature, block.signature + sizeof block.signature);
    text.insert(text.end(), comment.begin(), comment.end());
    return crypto_sign_verify_detached(signature.data(), text.data(), text.size(), key.key) == 0;
}

}  // namespace

Signature VerifySignature(const Bytes& package, const std::string& file, const Trust& trust) {
    const std::string path = trust.signature.empty() ? file + ".minisig" : trust.signature;
    return VerifySignature(package, file, trust.key, path, ReadWholeFile(path));
}

Signature VerifySignature(const Bytes& package, const std::string& file, const std::string& keyFile,
                          const std::string& path, const Bytes& signature) {
    if (sodium_init() < 0) {
        throw ToolError(ExitCode::kInternal, "cannot start libsodium");
    }
    const PublicKey key = ReadKey(keyFile);
    const std::vector<std::string> lines = TextLines(signature);
    SignatureBlock block{};
    std::array<uint8_t, crypto_sign_BYTES> commentSignature{};
    if (lines.size() < 4 || !StartsWith(lines[0], kUntrusted) || !Decode(lines[1], &block) ||
        !StartsWith(lines[2], kTrusted) || !Decode(lines[3], &commentSignature)) {
        Refuse(path, "not a minisign signature");
    }
    if (block.id != key.id) {
        Refuse(path,
               "made by key " + IdText(block.id) + ", but the trusted key is " + IdText(key.id));
    }
    if (!SignsPackage(block, key, package)) {
        Refuse(path, "not a signature of " + Printable(file) + " by key " + IdText(key.id));
    }
    const std::string comment = lines[2].substr(strlen(kTrusted));
    if (!SignsComment(block, key, comment, commentSignature)) {
        Refuse(path, "its trusted comment has been changed");
    }
    return {IdText(key.id), comment};
}

}  // namespace kvtool
