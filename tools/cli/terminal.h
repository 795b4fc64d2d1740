// What a terminal is, and lines on it that are painted over again and again.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace kvtool {

// Whether it can move its cursor.
bool IsTerminal(FILE* file);
// Asked for each time because the window may change; 80 and 24 when it does not say.
size_t TerminalColumns(FILE* file);
size_t TerminalRows(FILE* file);

// Lines at the end of the output that stand still. Other output goes above them.
class LiveArea {
  public:
    explicit LiveArea(FILE* out) : out_(out) {}
    // Each of `lines` is narrower than the terminal, and all together are lower.
    void Show(const std::vector<std::string>& lines);
    // Removes them, so that something else can be printed.
    void Clear();

  private:
    FILE* out_;
    std::vector<size_t> standing_;  // widths of the lines that stand
};

}  // namespace kvtool
