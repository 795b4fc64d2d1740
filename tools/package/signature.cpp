#include "tools/package/signature.h"

#include <sodium.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/kv_le.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/package/minisign_files.h"

namespace kvtool {

namespace {

using Digest = std::array<uint8_t, crypto_generichash_BYTES_MAX>;

[[noreturn]] void Refuse(const std::string& file, const std::string& why) {
    throw ToolError(ExitCode::kRefused, Printable(file) + ": " + why);
}

// The bytes of a signature that a package carries count as zero.
Digest DigestOf(const Bytes& package, const EmbeddedSignature* embedded) {
    crypto_generichash_state state;
    Digest digest{};
    (void)crypto_generichash_init(&state, nullptr, 0, digest.size());
    size_t rest = 0;
    if (embedded != nullptr) {
        const Bytes zeros(embedded->Size());
        (void)crypto_generichash_update(&state, package.data(), embedded->offset);
        (void)crypto_generichash_update(&state, zeros.data(), zeros.size());
        rest = embedded->offset + zeros.size();
    }
    (void)crypto_generichash_update(&state, package.data() + rest, package.size() - rest);
    (void)crypto_generichash_final(&state, digest.data(), digest.size());
    return digest;
}

const PublicKey& FindKey(const std::vector<PublicKey>& keys, const KeyId& id,
                         const std::string& file) {
    const auto key = std::find_if(keys.begin(), keys.end(),
                                  [&id](const PublicKey& trusted) { return trusted.id == id; });
    if (key == keys.end()) {
        std::string trusted;
        for (const PublicKey& other : keys) {
            trusted += (trusted.empty() ? "" : ", ") + KeyIdText(other.id);
        }
        Refuse(file, "signed by key " + KeyIdText(id) + ", but the trusted " +
                         (keys.size() == 1 ? "key is " : "keys are ") + trusted);
    }
    return *key;
}

bool Signs(const Ed25519Signature& signature, const uint8_t* bytes, size_t size,
           const PublicKey& key) {
    return crypto_sign_verify_detached(signature.data(), bytes, size, key.key.data()) == 0;
}

void VerifyComment(const DetachedSignature& signature, const PublicKey& key,
                   const std::string& file) {
    Bytes text(signature.signature.begin(), signature.signature.end());
    text.insert(text.end(), signature.comment.begin(), signature.comment.end());
    if (!Signs(signature.commentSignature, text.data(), text.size(), key)) {
        Refuse(file, "its trusted comment has been changed");
    }
}

std::vector<PublicKey> TrustedKeys(const std::string& file) {
    if (sodium_init() < 0) {
        throw ToolError(ExitCode::kInternal, "cannot start libsodium");
    }
    return ReadPublicKeys(file);
}

Signature VerifyEmbedded(const Bytes& package, const std::string& file,
                         const EmbeddedSignature& embedded, const std::vector<PublicKey>& keys) {
    const kv::PackageSignatureBytes& bytes = embedded.bytes;
    DetachedSignature signature{true, {}, {}, embedded.text.comment, {}};
    std::copy(std::begin(bytes.keyId), std::end(bytes.keyId), signature.id.begin());
    std::copy(std::begin(bytes.signature), std::end(bytes.signature), signature.signature.begin());
    std::copy(std::begin(bytes.commentSignature), std::end(bytes.commentSignature),
              signature.commentSignature.begin());
    const PublicKey& key = FindKey(keys, signature.id, file);
    const Digest digest = DigestOf(package, &embedded);
    if (memcmp(bytes.algorithm, "ED", sizeof bytes.algorithm) != 0 ||
        !Signs(signature.signature, digest.data(), digest.size(), key)) {
        Refuse(file, "changed after key " + KeyIdText(key.id) + " signed it");
    }
    VerifyComment(signature, key, file);
    return embedded.text;
}

Signature VerifyDetached(const Bytes& package, const std::string& file, const std::string& path,
                         const DetachedSignature& signature, const std::vector<PublicKey>& keys) {
    const PublicKey& key = FindKey(keys, signature.id, path);
    const Digest digest = DigestOf(package, nullptr);
    const bool good = signature.prehashed
                          ? Signs(signature.signature, digest.data(), digest.size(), key)
                          : Signs(signature.signature, package.data(), package.size(), key);
    if (!good) {
        Refuse(path, "not a signature of " + Printable(file) + " by key " + KeyIdText(key.id));
    }
    VerifyComment(signature, key, path);
    return {KeyIdText(key.id), signature.comment, SignatureForm::kDetached};
}

}  // namespace

std::optional<EmbeddedSignature> FindEmbeddedSignature(const Bytes& package) {
    if (package.size() < kv::kPackageHeaderSize + kv::kPackageEntrySize) {
        return {};
    }
    kv::UpgradeFileHeaderBytes header;
    kv::UpgradeFileEntryBytes entry;
    memcpy(&header, package.data(), sizeof header);
    memcpy(&entry, package.data() + sizeof header, sizeof entry);
    const uint64_t offset =
        kv::kPackageHeaderSize + uint64_t{kv::kPackageEntrySize} * kv::GetLe32(header.fileNum);
    const uint64_t length = kv::GetLe32(entry.dataLen);
    EmbeddedSignature found{offset, {}, {}};
    if (ReadField(entry.fileName, sizeof entry.fileName).text != kv::kSignatureName ||
        kv::GetLe32(entry.checkCode) != kv::kEntryCheckCode ||
        kv::GetLe32(entry.dataOffset) != offset || length < sizeof found.bytes ||
        length > sizeof found.bytes + kv::kMaxSignatureComment ||
        offset + length > package.size()) {
        return {};
    }
    memcpy(&found.bytes, package.data() + offset, sizeof found.bytes);
    const auto image = package.begin() + static_cast<ptrdiff_t>(offset);
    KeyId id;
    std::copy(std::begin(found.bytes.keyId), std::end(found.bytes.keyId), id.begin());
    found.text.keyId = KeyIdText(id);
    found.text.comment.assign(image + sizeof found.bytes, image + static_cast<ptrdiff_t>(length));
    return found;
}

Signature VerifySignature(const Bytes& package, const std::string& file, const Trust& trust) {
    if (trust.signature.empty()) {
        if (const auto embedded = FindEmbeddedSignature(package)) {
            return VerifyEmbedded(package, file, *embedded, TrustedKeys(trust.key));
        }
    }
    const std::string path = trust.signature.empty() ? file + ".minisig" : trust.signature;
    return VerifySignature(package, file, trust.key, path, ReadWholeFile(path));
}

Signature VerifySignature(const Bytes& package, const std::string& file, const std::string& keyFile,
                          const std::string& path, const Bytes& signature) {
    return VerifyDetached(package, file, path, ParseDetachedSignature(signature, path),
                          TrustedKeys(keyFile));
}

}  // namespace kvtool
