// The package that the page was given.
#pragma once

#include <memory>
#include <string>

#include "tools/base/json.h"
#include "tools/base/text.h"
#include "tools/fleet/journal.h"
#include "tools/package/check.h"
#include "tools/package/layout.h"
#include "tools/page/http_server.h"

namespace kvtool::page {

// Larger packages are not taken: they would stay in memory. A device's partitions have 12 MiB.
constexpr uint64_t kUploadLimit = 256ULL << 20;
constexpr size_t kSignatureLimit = 4096;

// The JSON library allocates in its destructor. Without memory kvtool ends anyway.
struct UploadedPackage {  // NOLINT(bugprone-exception-escape)
    fleet::PackageName name;
    Bytes bytes;
    PackageReport report;
    bool trusted = false;  // signed by the trusted key, or there is none
    Json json;             // a package of docs/kvtool-json.md
};
using PackagePtr = std::shared_ptr<const UploadedPackage>;

// Reads the body of the request into a file in `folder` and from there into memory. The file has no
// name, so nobody else can open it and it disappears with this process. Throws HttpError.
Bytes ReceiveFile(HttpCall* call, const std::string& folder);

// Checks a package. `file` is the name that its owner gave it; it is never used as a path.
// `trustedKey` is the file of a key, or empty.
PackagePtr Inspect(const std::string& file, Bytes bytes, const Layout& layout,
                   const std::string& trustedKey);

// The same package with a signature, good or bad. Throws HttpError(409) without a trusted key.
PackagePtr WithSignature(const UploadedPackage& package, const std::string& trustedKey,
                         const std::string& signature);

// Why it may not be sent to a device; empty: it may. `force` overrides what the check says, never a
// missing signature.
std::string Objection(const UploadedPackage& package, bool force);

}  // namespace kvtool::page
