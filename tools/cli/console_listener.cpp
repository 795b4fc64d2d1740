#include "tools/cli/console_listener.h"

#include "tools/cli/terminal.h"

namespace kvtool {

namespace {

constexpr double kTerminalEvery = 0.2;
constexpr double kPlainEvery = 5.0;
constexpr size_t kPlainColumns = 79;

}  // namespace

ConsoleListener::ConsoleListener(FILE* out) : out_(out), terminal_(IsTerminal(out)) {}

void ConsoleListener::Clear() {
    if (standing_ == 0) {
        return;
    }
    // A window that has become narrower has wrapped the line.
    const size_t above = (standing_ - 1) / SizeOf(out_).columns;
    if (above > 0) {
        (void)fprintf(out_, "\033[%zuA", above);
    }
    (void)fputs("\r\033[J", out_);
    (void)fflush(out_);
    standing_ = 0;
}

void ConsoleListener::Line(const std::string& text) {
    Clear();
    (void)fprintf(out_, "%s\n", text.c_str());
    (void)fflush(out_);
}

void ConsoleListener::Progress(const UploadProgress& progress) {
    rate_.Add(progress.seconds, progress.acknowledged);
    if (progress.acknowledged == progress.total ||
        progress.seconds - lastShown_ < (terminal_ ? kTerminalEvery : kPlainEvery)) {
        return;
    }
    lastShown_ = progress.seconds;
    if (!terminal_) {
        Line(ProgressText(progress, rate_.Rate(), kPlainColumns));
        return;
    }
    Clear();
    // Keep the last column free: some terminals wrap after writing it.
    const std::string text = ProgressText(progress, rate_.Rate(), SizeOf(out_).columns - 1);
    (void)fputs(text.c_str(), out_);
    (void)fflush(out_);
    standing_ = text.size();
}

}  // namespace kvtool
