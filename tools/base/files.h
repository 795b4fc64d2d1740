// Reads and writes whole files.
#pragma once

#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "tools/base/text.h"

namespace kvtool {

// The largest package whose size plus trailer fits the 32-bit length of the protocol.
constexpr uint64_t kMaxPackageSize = 0xFFFFFFFFULL - 37;

// Reads a regular file of at most kMaxPackageSize bytes. All later steps (checks, digest,
// sending) use these bytes, so they agree even if the file changes.
// Throws ToolError(kRefused).
Bytes ReadWholeFile(const std::string& path);

// A file that is to be written, in two steps: what can fail, such as a full disk or a missing
// folder, fails in the first one. A regular file gets all the bytes or stays as it is. A target
// that is no regular file, such as a pipe or a device, is written to. Symbolic links are followed.
class PendingFile {
  public:
    // Writes a temporary file in the target's folder, or opens a target that is no regular file;
    // a named pipe waits for its reader. The bytes must outlive the object. Throws
    // ToolError(kInternal, kInterrupted).
    PendingFile(const std::string& path, const Bytes& bytes);
    // Gives the temporary file its name, or writes to the opened target. Call it once. Throws
    // ToolError(kInternal, kInterrupted).
    void Commit();

  private:
    // Removed unless it has been renamed. Empty: none.
    struct TemporaryName {
        TemporaryName() = default;
        ~TemporaryName();
        TemporaryName(const TemporaryName&) = delete;
        TemporaryName& operator=(const TemporaryName&) = delete;
        std::string text;
    };

    std::string path_;
    const Bytes& bytes_;
    TemporaryName temporary_;
    UniqueFd fd_;
};

// Both steps. Throws ToolError(kInternal, kInterrupted).
void WriteWholeFile(const std::string& path, const Bytes& bytes);

// Throws ToolError: kUsage if standard output is a terminal, kInternal if writing fails.
void WriteToStandardOutput(const Bytes& bytes);

// Whether both paths name the same existing file.
bool SameFile(const std::string& a, const std::string& b);

// Whether writing to both paths would write to one file, which need not exist yet. Throws
// ToolError(kInternal) for a loop of symbolic links.
bool SameTarget(const std::string& a, const std::string& b);

// A line of a text file, without its comment and surrounding spaces.
struct SourceLine {
    std::string where;  // "FILE:LINE: ", safe to print
    std::string text;   // never empty
};
// The lines of a text file that are not blank. A "#" at the start of a word starts a comment.
// Throws ToolError(kUsage).
std::vector<SourceLine> ReadLines(const std::string& path);

}  // namespace kvtool
