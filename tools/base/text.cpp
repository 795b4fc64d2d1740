#include "tools/base/text.h"

#include <md5.h>

#include <array>
#include <cstring>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

std::string Decimal(double value, const char* unit) {
    std::array<char, 48> buffer{};
    (void)snprintf(buffer.data(), buffer.size(), "%.1f %s", value, unit);
    return buffer.data();
}

}  // namespace

FieldText ReadField(const void* field, size_t size) {
    const char* text = static_cast<const char*>(field);
    const size_t length = strnlen(text, size);
    return {std::string(text, length), length < size};
}

std::string Printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            out += c;
        } else {
            out += "\\x" + Hex(&c, 1);
        }
    }
    return out;
}

std::string Hex(const void* data, size_t size, std::string_view separator) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    const auto* bytes = static_cast<const uint8_t*>(data);
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        if (i > 0) {
            out += separator;
        }
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

std::string SizeText(uint64_t bytes) {
    std::string out = std::to_string(bytes) + " bytes";
    const auto value = static_cast<double>(bytes);
    if (bytes >= 1048576) {
        out += " (" + Decimal(value / (1024.0 * 1024.0), "MiB") + ")";
    } else if (bytes >= 1024) {
        out += " (" + Decimal(value / 1024.0, "KiB") + ")";
    }
    return out;
}

std::string SecondsText(double seconds) {
    return Decimal(seconds, "s");
}

std::string Md5Hex(const uint8_t* data, size_t size) {
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, data, size);
    std::array<uint8_t, MD5_DIGEST_LENGTH> digest{};
    MD5Final(digest.data(), &context);
    std::string out = Hex(digest.data(), digest.size());
    for (char& c : out) {
        c = static_cast<char>(tolower(c));
    }
    return out;
}

uint64_t ParseSize(const std::string& text) {
    const size_t digits = text.find_first_not_of("0123456789");
    const std::string suffix = digits == std::string::npos ? "" : text.substr(digits);
    const std::string number = text.substr(0, digits);
    int shift = 0;
    if (suffix == "K") {
        shift = 10;
    } else if (suffix == "M") {
        shift = 20;
    } else if (suffix == "G") {
        shift = 30;
    } else if (!suffix.empty()) {
        shift = -1;
    }
    // Ten digits and a suffix stay far inside 64 bits.
    if (number.empty() || number.size() > 10 || shift < 0) {
        throw ToolError(ExitCode::kUsage, "not a size: '" + Printable(text) +
                                              "' (bytes, or a number with K, M or G)");
    }
    return std::stoull(number) << shift;
}

}  // namespace kvtool
