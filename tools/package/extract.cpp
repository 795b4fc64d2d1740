#include "tools/package/extract.h"

#include <algorithm>
#include <set>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

bool IsPlainFileName(const std::string& name) {
    return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
           Printable(name) == name;
}

bool Asks(const std::string& name, const EntryReport& entry) {
    return entry.name == name ||
           std::any_of(entry.targets.begin(), entry.targets.end(),
                       [&name](const LayoutRow& row) { return row.name == name; });
}

}  // namespace

std::vector<ImageFile> SelectImages(const PackageReport& report,
                                    const std::vector<std::string>& names, bool force) {
    for (const std::string& name : names) {
        if (std::none_of(report.entries.begin(), report.entries.end(),
                         [&name](const EntryReport& entry) { return Asks(name, entry); })) {
            throw ToolError(ExitCode::kRefused, "no entry or partition of the package is called '" +
                                                    Printable(name) + "'");
        }
    }
    std::vector<ImageFile> images;
    std::set<std::string> taken;
    for (const EntryReport& entry : report.entries) {
        if (!names.empty() &&
            std::none_of(names.begin(), names.end(),
                         [&entry](const std::string& name) { return Asks(name, entry); })) {
            continue;
        }
        const std::string where = "entry " + std::to_string(entry.index) + ": ";
        if (!IsPlainFileName(entry.name)) {
            throw ToolError(ExitCode::kRefused,
                            where + "'" + Printable(entry.name) + "' is not a plain file name");
        }
        if (entry.inFile < entry.dataLen && !force) {
            throw ToolError(ExitCode::kRefused,
                            where + "the package contains only " + SizeText(entry.inFile) + " of " +
                                SizeText(entry.dataLen) + "; use --force to write these");
        }
        std::string name = entry.name;
        while (!taken.insert(name).second) {
            name += "." + std::to_string(entry.index);
        }
        images.push_back({&entry, name});
    }
    return images;
}

Bytes ImageBytes(const Bytes& package, const EntryReport& entry) {
    if (entry.inFile == 0) {
        return {};
    }
    const auto first = package.begin() + static_cast<ptrdiff_t>(entry.dataOffset);
    return Bytes(first, first + static_cast<ptrdiff_t>(entry.inFile));
}

}  // namespace kvtool
