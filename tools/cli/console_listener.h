// Shows an upgrade while it goes on: one line that rewrites itself on a terminal, a line now and
// then elsewhere.
#pragma once

#include <cstdio>

#include "tools/device/upgrade_session.h"

namespace kvtool {

class ConsoleListener : public UpgradeListener {
  public:
    explicit ConsoleListener(FILE* out);
    void Line(const std::string& text) override;
    void Progress(uint64_t acknowledged, uint64_t total, double seconds) override;
    // Removes a progress line that still stands.
    void Clear();

  private:
    FILE* out_;
    bool terminal_;
    bool progressStands_ = false;
    double lastShown_ = 0;
};

}  // namespace kvtool
