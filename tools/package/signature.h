// Signatures of packages: inside the package, or detached in a file of minisign.
#pragma once

#include <optional>
#include <string>

#include "flash/kv_upgrade_package.h"
#include "tools/base/text.h"

namespace kvtool {

struct Trust {
    std::string key;        // file of public keys, empty: any package is trusted
    std::string signature;  // file of a detached signature; empty: see VerifySignature
};

enum class SignatureForm { kEmbedded, kDetached };

struct Signature {
    std::string keyId;    // as minisign shows it, 16 hex digits
    std::string comment;  // the trusted comment, which is signed too
    SignatureForm form = SignatureForm::kEmbedded;
};

// A signature inside a package, where a device looks for it. docs/package-format.md describes it.
struct EmbeddedSignature {
    uint64_t offset;  // of its image
    kv::PackageSignatureBytes bytes;
    Signature text;  // the key and the comment that it names

    uint64_t Size() const { return sizeof bytes + text.comment.size(); }
};
std::optional<EmbeddedSignature> FindEmbeddedSignature(const Bytes& package);

// Verifies that one of the trusted keys has signed the package that was read from `file`: with the
// signature file of `trust`, else with the signature inside the package, else with the file
// "FILE.minisig". Throws ToolError(kRefused) if a key or the signature is malformed, or if the
// signature was made with another key or for other bytes.
Signature VerifySignature(const Bytes& package, const std::string& file, const Trust& trust);

// The same with the bytes of the signature. `signatureFile` and `file` are names for the messages.
Signature VerifySignature(const Bytes& package, const std::string& file, const std::string& key,
                          const std::string& signatureFile, const Bytes& signature);

}  // namespace kvtool
