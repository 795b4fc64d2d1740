#include "tools/cli/load_package.h"

#include <iostream>

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/cli/report.h"
#include "tools/package/package_json.h"

namespace kvtool {

LoadedPackage LoadPackage(const PackageChoice& choice, const Layout& layout, Json* json) {
    std::ostream& out = choice.json ? std::cerr : std::cout;
    LoadedPackage package;
    package.bytes = ReadWholeFile(choice.file);
    if (!choice.trust.key.empty()) {
        const Signature signature = VerifySignature(package.bytes, choice.file, choice.trust);
        (*json)["signature"] = SignatureJson(signature);
        out << SignatureText(signature) << '\n';
    }
    package.report = CheckPackage(package.bytes, layout, {});
    (*json)["package"] = PackageSummaryJson(package.report);
    PrintFindings(out, package.report);
    out.flush();
    if (package.bytes.empty() || (!package.report.Acceptable() && !choice.force)) {
        throw ToolError(ExitCode::kRefused,
                        Printable(choice.file) +
                            " is not fit for the device: see the errors above; nothing was sent");
    }
    return package;
}

}  // namespace kvtool
