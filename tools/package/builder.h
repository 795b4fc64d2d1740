// Builds an upgrade package.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/package/layout.h"

namespace kvtool {

struct ImageSpec {
    std::string name;  // entry name, selects the partition
    Bytes bytes;
};

struct BuildRequest {
    std::string ic;
    std::string sensor;
    std::vector<ImageSpec> images;
    Layout layout;
    bool force = false;  // build even if the device would not install it as intended
    // Makes room for a signature with this trusted comment (see signer.h).
    std::optional<std::string> signatureComment = std::nullopt;
};

struct BuildResult {
    Bytes bytes;
    std::vector<std::string> warnings;  // problems that `force` overrode
};

// The same request gives the same bytes. Images are in the given order, each padded with 0xFF to a
// multiple of 64 KiB from its own start. The boot loader comes last and ends the file. A signature
// is entry 0, and its image, zeros until it is signed, lies between the table and the first image.
// Throws ToolError(kRefused) with one problem per line. A name or type that does not fit its field
// is refused even if forced.
BuildResult BuildPackage(const BuildRequest& request);

}  // namespace kvtool
