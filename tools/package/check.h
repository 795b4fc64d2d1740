// What the device would make of a package: reads it as the device reads it and names everything
// that it refuses, skips or writes beyond an image.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/package/layout.h"

namespace kvtool {

// What is known of the device; what is not known is not compared.
struct Identity {
    std::optional<std::string> ic;
    std::optional<std::string> sensor;
};

enum class Severity {
    kNote,     // worth knowing
    kWarning,  // probably not meant
    kError,    // the device refuses it, or what it writes is not what the package holds
};
const char* SeverityName(Severity severity);

struct Finding {
    Severity severity;
    const char* kind;  // stable word, for programs and for counting findings of a kind
    int entry;         // index in the table, -1: the package as a whole
    std::string text;
};

struct EntryReport {
    uint32_t index = 0;
    std::string name;
    uint32_t dataLen = 0;
    uint32_t dataOffset = 0;
    uint32_t checkCode = 0;
    std::vector<LayoutRow> targets;  // partitions that the name selects
    bool reached = true;             // false: a bad check code ends the device's loop before it
    uint64_t inFile = 0;             // bytes of the image that the file really holds
    std::string md5;                 // of those bytes; empty where too many images overlap
    uint64_t behind = 0;      // bytes that are written behind the image (boot loader: at most)
    bool behindBlank = true;  // all of them are 0xFF, as erased flash is
};

struct PackageReport {
    uint64_t size = 0;
    std::string md5;
    bool headerComplete = false;
    std::string ic;
    std::string sensor;
    uint32_t totalLen = 0;
    uint32_t fileNum = 0;
    std::vector<EntryReport> entries;  // those of which the file holds any byte
    std::vector<Finding> findings;

    // Whether nothing of severity kError was found.
    bool Acceptable() const;
};

// Without an identity the package's own chip and sensor types are facts, not findings.
PackageReport CheckPackage(const Bytes& package, const Layout& layout, const Identity& device);

// Bytes that the device's writer takes from the package for an image: whole transfer units, at
// least one for a plain partition (so an empty image is not harmless), none for an empty boot
// loader.
uint64_t RoundedLength(uint64_t dataLen, bool boot);

}  // namespace kvtool
