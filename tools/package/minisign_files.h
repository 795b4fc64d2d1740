// Files of minisign: public keys and detached signatures.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "tools/base/text.h"

namespace kvtool {

using KeyId = std::array<uint8_t, 8>;
using Ed25519Signature = std::array<uint8_t, 64>;

// As minisign shows it: the bytes as one little-endian number, 16 hex digits.
std::string KeyIdText(KeyId id);

struct PublicKey {
    uint8_t algorithm[2];  // "Ed"
    KeyId id;
    std::array<uint8_t, 32> key;
};

struct DetachedSignature {
    bool prehashed;  // of the BLAKE2b-512 digest of the signed bytes, not of the bytes themselves
    KeyId id;
    Ed25519Signature signature;
    std::string comment;                // the trusted comment
    Ed25519Signature commentSignature;  // of `signature`, then the comment
};

// The keys of a file as minisign writes them, one after the other. Empty lines and lines that begin
// with "#" are ignored. Throws ToolError(kRefused), also if there is none.
std::vector<PublicKey> ReadPublicKeys(const std::string& file);

// Throws ToolError(kRefused).
DetachedSignature ReadDetachedSignature(const std::string& file);

// The signature in the bytes of a file. `file` is its name for the message. Throws
// ToolError(kRefused).
DetachedSignature ParseDetachedSignature(const Bytes& bytes, const std::string& file);

}  // namespace kvtool
