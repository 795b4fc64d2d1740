#include "tools/package/layout.h"

#include <kv_standard_layout.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/kv_platform.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/text.h"

namespace kvtool {

namespace {

// Size of "/dev/mtdN" in bytes in the standard layout.
uint64_t StandardSize(const std::string& device) {
    return kv::kStandardPartitionKib[std::stoul(device.substr(strlen("/dev/mtd")))] * 1024;
}

}  // namespace

bool LayoutRow::IsBoot() const {
    return device == kv::kBootDevices[0];
}

Layout Layout::Default() {
    std::vector<LayoutRow> rows;
    for (const kv::PartitionRow& partition : kv::kPartitions) {
        rows.push_back({partition.name, partition.device, StandardSize(partition.device)});
        if (rows.back().IsBoot()) {
            rows.back().size = 0;
            for (const char* const device : kv::kBootDevices) {
                rows.back().size += StandardSize(device);
            }
        }
    }
    return Layout(std::move(rows));
}

void Layout::SetSize(const std::string& assignment) {
    const size_t equals = assignment.find('=');
    const std::string name = Trimmed(assignment.substr(0, equals));
    if (equals == std::string::npos) {
        throw ToolError(ExitCode::kUsage, "'" + Printable(assignment) + "' is not NAME=BYTES");
    }
    const auto row = std::find_if(rows_.begin(), rows_.end(),
                                  [&name](const LayoutRow& r) { return r.name == name; });
    if (row == rows_.end()) {
        throw ToolError(ExitCode::kUsage, "no partition is called '" + Printable(name) + "'");
    }
    row->size = ParseSize(Trimmed(assignment.substr(equals + 1)));
}

void Layout::ReadFile(const std::string& path) {
    for (const SourceLine& line : ReadLines(path)) {
        try {
            SetSize(line.text);
        } catch (const ToolError& error) {
            throw ToolError(error.Code(), line.where + error.what());
        }
    }
}

std::vector<LayoutRow> Layout::Select(std::string_view fileName) const {
    std::vector<LayoutRow> selected;
    for (const LayoutRow& row : rows_) {
        if (fileName.substr(0, row.name.size()) == row.name) {
            selected.push_back(row);
        }
    }
    return selected;
}

}  // namespace kvtool
