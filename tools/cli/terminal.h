// What the commands know of the terminal.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kvtool {

// Whether lines on it can be rewritten.
bool IsTerminal(FILE* file);

struct TerminalSize {
    size_t columns;
    size_t rows;
};
// Asked for each time because a window may change; COLUMNS, or 80 × 24, if it cannot be told.
TerminalSize SizeOf(FILE* file);

// Characters that the text takes on a terminal; `text` is UTF-8 without control characters.
size_t Width(const std::string& text);
// At most `width` characters of it: "…" replaces what is left out in the middle.
std::string Shortened(const std::string& text, size_t width);

// Columns of equal width, two spaces apart; the first row is their headings. Where the rows are
// wider than `width`, the column `yields` becomes narrower, down to 8; 0: no limit.
std::vector<std::string> TableLines(const std::vector<std::vector<std::string>>& rows,
                                    size_t yields, size_t width);

// Lines at the bottom of a terminal that are replaced as a whole. Nothing scrolls: they are cut to
// the window.
class LiveLines {
  public:
    explicit LiveLines(FILE* out) : out_(out) {}
    void Show(const std::vector<std::string>& lines);

  private:
    FILE* out_;
    std::vector<size_t> standing_;  // widths of the lines that stand
};

}  // namespace kvtool
