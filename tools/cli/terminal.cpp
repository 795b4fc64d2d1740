#include "tools/cli/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace kvtool {

namespace {

constexpr size_t kDefaultColumns = 80;
constexpr size_t kDefaultRows = 24;
constexpr size_t kNarrowest = 8;
constexpr char kEllipsis[] = "…";

bool BeginsCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80;
}

// Where the character with this number begins.
size_t OffsetOf(const std::string& text, size_t character) {
    size_t at = 0;
    for (; at < text.size(); ++at) {
        if (BeginsCharacter(text[at]) && character-- == 0) {
            break;
        }
    }
    return at;
}

}  // namespace

bool IsTerminal(FILE* file) {
    const char* const kind = getenv("TERM");
    return isatty(fileno(file)) == 1 && (kind == nullptr || std::string_view(kind) != "dumb");
}

TerminalSize SizeOf(FILE* file) {
    winsize size{};
    if (ioctl(fileno(file), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return {size.ws_col, size.ws_row > 0 ? size.ws_row : kDefaultRows};
    }
    const char* const text = getenv("COLUMNS");
    const unsigned long given = text != nullptr ? strtoul(text, nullptr, 10) : 0;
    return {given > 0 && given < 10000 ? given : kDefaultColumns, kDefaultRows};
}

size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), BeginsCharacter));
}

std::string Shortened(const std::string& text, size_t width) {
    const size_t whole = Width(text);
    if (whole <= width) {
        return text;
    }
    if (width == 0) {
        return "";
    }
    const size_t head = (width - 1) / 2;
    const size_t tail = width - 1 - head;
    return text.substr(0, OffsetOf(text, head)) + kEllipsis +
           text.substr(OffsetOf(text, whole - tail));
}

std::vector<std::string> TableLines(const std::vector<std::vector<std::string>>& rows,
                                    size_t yields, size_t width) {
    std::vector<size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    size_t all = 2 * (widths.size() - 1);
    for (const size_t column : widths) {
        all += column;
    }
    if (width > 0 && all > width) {
        const size_t narrowest = std::min(widths[yields], kNarrowest);
        widths[yields] -= std::min(all - width, widths[yields] - narrowest);
    }
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string text = Shortened(row[i], widths[i]);
            const bool last = i + 1 == row.size();
            line += text + (last ? "" : std::string(widths[i] - Width(text) + 2, ' '));
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

void LiveLines::Show(const std::vector<std::string>& lines) {
    const TerminalSize size = SizeOf(out_);
    // If the window became narrower, it has wrapped lines.
    size_t above = 0;
    for (const size_t width : standing_) {
        above += 1 + (width > 0 ? (width - 1) / size.columns : 0);
    }
    standing_.clear();
    std::string text = above > 0 ? "\033[" + std::to_string(above) + "A\r" : "\r";
    for (const std::string& line : lines) {
        if (standing_.size() + 1 >= size.rows) {
            break;
        }
        // Keep the last column free: some terminals wrap after writing it.
        const std::string shown = Shortened(line, size.columns - 1);
        text += shown + "\033[K\n";
        standing_.push_back(Width(shown));
    }
    text += "\033[J";
    (void)fwrite(text.data(), 1, text.size(), out_);
    (void)fflush(out_);
}

}  // namespace kvtool
