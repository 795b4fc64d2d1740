// Texts from outside (network, packages, the supplicant), made safe for the log.
#pragma once

#include <cstddef>

namespace kv {

// A copy of a foreign text with '?' for each control byte (0x00 to 0x1f and 0x7f). The text can
// then neither forge a log line nor control a terminal. All other bytes stay, including those from
// 0x80 on. Longer text is cut to what a log line can show.
//
//     KV_INFO("ic is %s", kv::LogText(header.icType).Get());
//
// Any thread; does not block. The text of a temporary lasts until the end of its full expression.
class LogText {
  public:
    // `text` ends at its first NUL.
    explicit LogText(const char* text);
    // `text` has `size` bytes. A NUL among them counts as a control byte.
    LogText(const char* text, size_t size);
    const char* Get() const { return text_; }

  private:
    char text_[512];
};

}  // namespace kv
