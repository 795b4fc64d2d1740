#include "common/kv_text.h"

#include <algorithm>
#include <cstring>

namespace kv {

LogText::LogText(const char* text) : LogText(text, strnlen(text, sizeof(text_))) {}

LogText::LogText(const char* text, size_t size) {
    const size_t shown = std::min(size, sizeof(text_) - 1);
    for (size_t i = 0; i < shown; ++i) {
        const char byte = text[i];
        const bool control = (static_cast<unsigned char>(byte) < 0x20) || byte == 0x7f;
        text_[i] = control ? '?' : byte;
    }
    text_[shown] = '\0';
}

}  // namespace kv
