#include "tools/cli/console_listener.h"

#include <unistd.h>

#include <algorithm>

namespace kvtool {

namespace {

constexpr double kTerminalEvery = 0.2;
constexpr double kPlainEvery = 5.0;

std::string ProgressText(uint64_t acknowledged, uint64_t total, double seconds) {
    const uint64_t percent = total > 0 ? acknowledged * 100 / total : 0;
    const double rate = static_cast<double>(acknowledged) / std::max(seconds, 0.001);
    std::string text = "upload: " + std::to_string(percent) + "% of " + SizeText(total) + ", " +
                       SizeText(static_cast<uint64_t>(rate)) + " a second";
    if (rate > 0) {
        text += ", " + SecondsText(static_cast<double>(total - acknowledged) / rate) + " left";
    }
    return text;
}

}  // namespace

ConsoleListener::ConsoleListener(FILE* out) : out_(out), terminal_(isatty(fileno(out)) == 1) {}

void ConsoleListener::Clear() {
    if (progressStands_) {
        (void)fputs("\r\033[K", out_);
        (void)fflush(out_);
        progressStands_ = false;
    }
}

void ConsoleListener::Line(const std::string& text) {
    Clear();
    (void)fprintf(out_, "%s\n", text.c_str());
    (void)fflush(out_);
}

void ConsoleListener::Progress(uint64_t acknowledged, uint64_t total, double seconds) {
    if (acknowledged == total ||
        seconds - lastShown_ < (terminal_ ? kTerminalEvery : kPlainEvery)) {
        return;
    }
    lastShown_ = seconds;
    const std::string text = ProgressText(acknowledged, total, seconds);
    if (!terminal_) {
        Line(text);
        return;
    }
    (void)fprintf(out_, "\r%s\033[K", text.c_str());
    (void)fflush(out_);
    progressStands_ = true;
}

}  // namespace kvtool
