// Shows the progress of an upgrade: on a terminal one line that updates itself, elsewhere a line
// every few seconds.
#pragma once

#include <cstdio>

#include "tools/cli/progress.h"
#include "tools/device/upgrade_session.h"

namespace kvtool {

class ConsoleListener : public UpgradeListener {
  public:
    explicit ConsoleListener(FILE* out);
    void Line(const std::string& text) override;
    void Progress(const UploadProgress& progress) override;
    // Removes the progress line if there is one.
    void Clear();

  private:
    FILE* out_;
    bool terminal_;
    size_t standing_ = 0;  // width of the progress line on the screen, 0: none
    double lastShown_ = 0;
    RateMeter rate_;
};

}  // namespace kvtool
