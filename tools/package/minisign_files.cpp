#include "tools/package/minisign_files.h"

#include <sodium.h>

#include <algorithm>
#include <cstring>

#include "tools/base/errors.h"
#include "tools/base/files.h"

namespace kvtool {

namespace {

constexpr char kUntrusted[] = "untrusted comment: ";
constexpr char kTrusted[] = "trusted comment: ";

struct SignatureBlock {
    uint8_t algorithm[2];  // "Ed" or, prehashed, "ED"
    KeyId id;
    Ed25519Signature signature;
};
static_assert(sizeof(PublicKey) == 42 && sizeof(SignatureBlock) == 74, "sizes of minisign");

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

}  // namespace

std::string KeyIdText(KeyId id) {
    std::reverse(id.begin(), id.end());
    return Hex(id.data(), id.size());
}

std::vector<PublicKey> ReadPublicKeys(const std::string& file) {
    std::vector<PublicKey> keys;
    for (const std::string& line : TextLines(ReadWholeFile(file))) {
        if (line.empty() || line.front() == '#' || StartsWith(line, kUntrusted)) {
            continue;
        }
        PublicKey key{};
        if (!Decode(line, &key) || memcmp(key.algorithm, "Ed", 2) != 0) {
            Refuse(file, "not a minisign public key");
        }
        keys.push_back(key);
    }
    if (keys.empty()) {
        Refuse(file, "contains no minisign public key");
    }
    return keys;
}

DetachedSignature ReadDetachedSignature(const std::string& file) {
    return ParseDetachedSignature(ReadWholeFile(file), file);
}

DetachedSignature ParseDetachedSignature(const Bytes& bytes, const std::string& file) {
    const std::vector<std::string> lines = TextLines(bytes);
    SignatureBlock block{};
    DetachedSignature signature{};
    if (lines.size() < 4 || !StartsWith(lines[0], kUntrusted) || !Decode(lines[1], &block) ||
        !StartsWith(lines[2], kTrusted) || !Decode(lines[3], &signature.commentSignature)) {
        Refuse(file, "not a minisign signature");
    }
    signature.prehashed = memcmp(block.algorithm, "ED", 2) == 0;
    if (!signature.prehashed && memcmp(block.algorithm, "Ed", 2) != 0) {
        Refuse(file, "a signature of an unknown kind");
    }
    signature.id = block.id;
    signature.signature = block.signature;
    signature.comment = lines[2].substr(strlen(kTrusted));
    return signature;
}

}  // namespace kvtool
