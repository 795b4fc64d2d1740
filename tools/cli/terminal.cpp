#include "tools/cli/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace kvtool {

namespace {

constexpr size_t kDefaultColumns = 80;
constexpr size_t kDefaultRows = 24;

size_t Given(const char* variable, size_t otherwise) {
    const char* const text = getenv(variable);
    const unsigned long given = text != nullptr ? strtoul(text, nullptr, 10) : 0;
    return given > 0 && given < 10000 ? given : otherwise;
}

}  // namespace

bool IsTerminal(FILE* file) {
    const char* const kind = getenv("TERM");
    return isatty(fileno(file)) == 1 && (kind == nullptr || std::string_view(kind) != "dumb");
}

size_t TerminalColumns(FILE* file) {
    winsize size{};
    return ioctl(fileno(file), TIOCGWINSZ, &size) == 0 && size.ws_col > 0
               ? size.ws_col
               : Given("COLUMNS", kDefaultColumns);
}

size_t TerminalRows(FILE* file) {
    winsize size{};
    return ioctl(fileno(file), TIOCGWINSZ, &size) == 0 && size.ws_row > 0
               ? size.ws_row
               : Given("LINES", kDefaultRows);
}

void LiveArea::Clear() {
    if (standing_.empty()) {
        return;
    }
    // A window that became narrower has wrapped lines into several.
    const size_t columns = TerminalColumns(out_);
    size_t above = 0;
    for (const size_t width : standing_) {
        above += 1 + (width > 0 ? (width - 1) / columns : 0);
    }
    (void)fprintf(out_, "\033[%zuA\r\033[J", above);
    (void)fflush(out_);
    standing_.clear();
}

void LiveArea::Show(const std::vector<std::string>& lines) {
    Clear();
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
        standing_.push_back(line.size());
    }
    (void)fputs(text.c_str(), out_);
    (void)fflush(out_);
}

}  // namespace kvtool
