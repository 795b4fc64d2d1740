// Detached signatures as minisign makes them.
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

// Verifies that the package, read from `file`, bears a signature by the trusted key.
// Throws ToolError(kRefused): a key or signature that is none, another key's, one that does not
// belong to these bytes.
Signature VerifySignature(const Bytes& package, const std::string& file, const Trust& trust);

}  // namespace kvtool
