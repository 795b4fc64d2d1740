// The progress line of an upload.
#pragma once

#include <string>

#include "tools/device/rate_meter.h"
#include "tools/device/upgrade_session.h"

namespace kvtool {

// At most `columns` wide. Leaves out the least important parts first.
std::string ProgressText(const UploadProgress& progress, double rate, size_t columns);

}  // namespace kvtool
