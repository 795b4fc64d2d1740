// What the device would do with a package. Reads it as the device does and reports everything that
// the device refuses, skips or writes beyond an image.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/package/layout.h"
#include "tools/package/signature.h"

namespace kvtool {

// What is known about the device. A package is compared with nothing else.
struct Identity {
    std::optional<std::string> ic;
    std::optional<std::string> sensor;
};

enum class Severity {
    kNote,     // worth knowing
    kWarning,  // probably a mistake
    kError,    // the device refuses it, or writes something other than the images
};
const char* SeverityName(Severity severity);

struct Finding {
    Severity severity;
    const char* kind;  // the kind of finding, a stable word
    int entry;         // index in the table, -1: the whole package
    std::string text;
};

struct EntryReport {
    uint32_t index = 0;
    std::string name;
    uint32_t dataLen = 0;
    uint32_t dataOffset = 0;
    uint32_t checkCode = 0;
    std::vector<LayoutRow> targets;  // partitions that the name selects
    bool reached = true;             // false: the device stops earlier, at a bad check code
    uint64_t inFile = 0;             // bytes of the image that the file contains
    std::string md5;                 // of those bytes; empty if too many images overlap
    uint64_t behind = 0;             // bytes written after the image (boot loader: at most)
    bool behindBlank = true;         // all of them are 0xFF, as erased flash is
};

struct PackageReport {
    uint64_t size = 0;
    std::string md5;
    bool headerComplete = false;
    std::string ic;
    std::string sensor;
    uint32_t totalLen = 0;
    uint32_t fileNum = 0;
    std::optional<EmbeddedSignature> signature;  // not verified here
    std::vector<EntryReport> entries;            // those with at least one byte in the file
    std::vector<Finding> findings;

    // Whether nothing of severity kError was found.
    bool Acceptable() const;
};

// Without an identity, the chip and sensor type of the package give no findings.
PackageReport CheckPackage(const Bytes& package, const Layout& layout, const Identity& device);

// Bytes that the device's writer takes from the package for an image. It takes whole transfer
// units: at least one for a plain partition (so an empty image does harm), none for an empty boot
// loader.
uint64_t RoundedLength(uint64_t dataLen, bool boot);

}  // namespace kvtool
