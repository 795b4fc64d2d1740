// Verifies detached signatures of minisign.
#pragma once

#include <string>

#include "tools/base/text.h"

namespace kvtool {

struct Trust {
    std::string key;        // file of a public key, empty: any package is trusted
    std::string signature;  // file of the signature, empty: the package's name with ".minisig"
};

struct Signature {
    std::string keyId;    // as minisign shows it, 16 hex digits
    std::string comment;  // the trusted comment, which is signed too
};

// Verifies that the trusted key has signed the package that was read from `file`.
// Throws ToolError(kRefused) if the key or the signature is malformed, or if the signature was made
// with another key or for other bytes.
Signature VerifySignature(const Bytes& package, const std::string& file, const Trust& trust);

// The same with the bytes of the signature. `signatureFile` and `file` are names for the messages.
Signature VerifySignature(const Bytes& package, const std::string& file, const std::string& key,
                          const std::string& signatureFile, const Bytes& signature);

}  // namespace kvtool
