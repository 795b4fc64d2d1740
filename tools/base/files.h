// Reads and writes whole files.
#pragma once

#include <string>
#include <vector>

#include "tools/base/text.h"

namespace kvtool {

// The largest package whose size plus trailer fits the 32-bit length of the protocol.
constexpr uint64_t kMaxPackageSize = 0xFFFFFFFFULL - 37;

// Reads a regular file of at most kMaxPackageSize bytes. All later steps (checks, digest,
// sending) use these bytes, so they agree even if the file changes.
// Throws ToolError(kRefused).
Bytes ReadWholeFile(const std::string& path);

// Writes a temporary file in the same folder and renames it. `path` either has all the bytes or is
// unchanged. Throws ToolError(kInternal).
void WriteWholeFile(const std::string& path, const Bytes& bytes);

// Throws ToolError: kUsage if standard output is a terminal, kInternal if writing fails.
void WriteToStandardOutput(const Bytes& bytes);

// Whether both paths name the same existing file.
bool SameFile(const std::string& a, const std::string& b);

// A line of a text file, without its comment and surrounding spaces.
struct SourceLine {
    std::string where;  // "FILE:LINE: ", safe to print
    std::string text;   // never empty
};
// The lines of a text file that are not blank. A "#" at the start of a word starts a comment.
// Throws ToolError(kUsage).
std::vector<SourceLine> ReadLines(const std::string& path);

}  // namespace kvtool
