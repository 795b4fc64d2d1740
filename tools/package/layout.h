// The partitions of the camera as kvtool assumes them. The names are those of the device's own
// table; only the device knows the true sizes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvtool {

struct LayoutRow {
    std::string name;
    std::string device;  // first device of the region
    uint64_t size;       // bytes

    // Whether this is the boot-loader region, which spans several devices.
    bool IsBoot() const;
};

class Layout {
  public:
    // The device's table with the sizes of the standard flash layout.
    static Layout Default();

    // For layouts other than the compiled-in one.
    explicit Layout(std::vector<LayoutRow> rows) : rows_(std::move(rows)) {}

    // Sets the size of a row from "NAME=BYTES". Throws ToolError(kUsage).
    void SetSize(const std::string& assignment);
    // Reads one "NAME=BYTES" per line. Ignores spaces, blank lines and comments ("#" at the start
    // of a word). Throws ToolError(kUsage), which names file and line.
    void ReadFile(const std::string& path);

    // The rows that an entry of this name selects, in table order: those whose name is a prefix of
    // it.
    std::vector<LayoutRow> Select(std::string_view fileName) const;

    const std::vector<LayoutRow>& Rows() const { return rows_; }

  private:
    std::vector<LayoutRow> rows_;
};

}  // namespace kvtool
