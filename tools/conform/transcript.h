// Writes what was exchanged with a device, for authors of clients.
#pragma once

#include <ostream>
#include <vector>

#include "tools/conform/trial.h"

namespace kvtool::conform {

// Each rule with its exchange in hex, ">" to the device and "<" from it. Long pieces are cut; a
// star stands for rows that repeat the one before.
void WriteTranscript(std::ostream& out, const std::vector<Finding>& findings);

}  // namespace kvtool::conform
