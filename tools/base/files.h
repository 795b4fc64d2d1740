// Whole files in and out.
#pragma once

#include <string>

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

}  // namespace kvtool
