// Whole files in and out.
#pragma once

#include <string>
#include <vector>

#include "tools/base/text.h"

namespace kvtool {

// The largest package whose size, with the trailer, the 32-bit length of the protocol can announce.
constexpr uint64_t kMaxPackageSize = 0xFFFFFFFFULL - 37;

// Reads a regular file of at most kMaxPackageSize bytes. Everything later (checks, digest, sending)
// works on these bytes, so a file that changes meanwhile cannot make them disagree.
// Throws ToolError(kRefused).
Bytes ReadWholeFile(const std::string& path);

// Writes the file under a temporary name beside it and renames it, so that `path` holds all the
// bytes or is left as it was. Throws ToolError(kInternal).
void WriteWholeFile(const std::string& path, const Bytes& bytes);

// Throws ToolError: kUsage where standard output is a terminal, kInternal where writing fails.
void WriteToStandardOutput(const Bytes& bytes);

// Whether both paths lead to one existing file.
bool SameFile(const std::string& a, const std::string& b);

// A line of a text file without its comment and outer spaces.
struct SourceLine {
    std::string where;  // "FILE:LINE: ", fit for a terminal
    std::string text;   // never empty
};
// The lines of a text file that say something; a "#" at the start of a word begins a comment.
// Throws ToolError(kUsage).
std::vector<SourceLine> ReadLines(const std::string& path);

}  // namespace kvtool
