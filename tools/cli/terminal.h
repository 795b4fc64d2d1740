// The terminal: its size, the width of texts, and lines that update themselves.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kvtool {

// Whether it is a terminal on which lines can be rewritten.
bool IsTerminal(FILE* file);

struct TerminalSize {
    size_t columns;
    size_t rows;
};
// The present size; a window may change, so do not keep it. COLUMNS, or 80 × 24, if it is unknown.
TerminalSize SizeOf(FILE* file);

// Number of characters that the text takes; `text` is UTF-8 without control characters.
size_t Width(const std::string& text);
// The text cut to `width` characters: "…" replaces what is left out in the middle.
std::string Shortened(const std::string& text, size_t width);

// Lines with columns of equal width, two spaces apart. The first row has the headings. If the rows
// are wider than `width` (0: no limit), the column `yields` becomes narrower, down to 8.
std::vector<std::string> TableLines(const std::vector<std::vector<std::string>>& rows,
                                    size_t yields, size_t width);

// A block of lines at the bottom of a terminal, replaced all at once. Lines are cut to the window's
// width, which keeps the window from scrolling.
class LiveLines {
  public:
    explicit LiveLines(FILE* out) : out_(out) {}
    void Show(const std::vector<std::string>& lines);

  private:
    FILE* out_;
    std::vector<size_t> standing_;  // widths of the lines on the screen
};

}  // namespace kvtool
