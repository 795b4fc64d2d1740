// Shows an upgrade while it goes on: one line that rewrites itself on a terminal, a line now and
// then elsewhere.
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
    // Removes a progress line that still stands.
    void Clear();

  private:
    FILE* out_;
    bool terminal_;
    size_t standing_ = 0;  // width of the progress line that stands
    double lastShown_ = 0;
    RateMeter rate_;
};

}  // namespace kvtool
