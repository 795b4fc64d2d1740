// Texts from outside (network, packages, the supplicant) as the log shows them.
#pragma once

#include <cstddef>

namespace kv {

// A copy of a foreign text in which each control byte (0x00 to 0x1f and 0x7f) is a '?', so that the
// text can neither begin a log line of its own nor steer a terminal. Every other byte stays, those
// from 0x80 on too. Holds as much as a log line can show; a longer text is cut.
//
//     KV_INFO("ic is %s", kv::LogText(header.icType).Get());
//
// Any thread; does not block. The text of a temporary lasts to the end of its full expression.
class LogText {
  public:
    // `text` ends at its first NUL.
    explicit LogText(const char* text);
    // `text` has `size` bytes; a NUL among them is a control byte like others.
    LogText(const char* text, size_t size);
    const char* Get() const { return text_; }

  private:
    char text_[512];
};

}  // namespace kv
