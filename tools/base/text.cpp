#include "tools/base/text.h"

#include <md5.h>
#include <sha2.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <numeric>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

std::string Decimal(double value, const char* unit) {
    std::array<char, 48> buffer{};
    (void)snprintf(buffer.data(), buffer.size(), "%.1f %s", value, unit);
    return buffer.data();
}

std::string LowerHex(const void* data, size_t size) {
    std::string out = Hex(data, size);
    for (char& c : out) {
        c = static_cast<char>(tolower(c));
    }
    return out;
}

// The length of the first character, whose code point it stores; 0: not UTF-8.
size_t Utf8Length(std::string_view text, uint32_t* point) {
    const auto lead = static_cast<uint8_t>(text[0]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length == 0 || lead > 0xF4 || text.size() < length) {
        return 0;
    }
    *point = length == 1 ? lead : lead & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        if ((byte & 0xC0) != 0x80) {
            return 0;
        }
        *point = *point << 6 | (byte & 0x3FU);
    }
    // An overlong form, a surrogate, or beyond the last code point.
    const bool wrong = (length == 3 && *point < 0x800) || (length == 4 && *point < 0x10000) ||
                       (*point >= 0xD800 && *point <= 0xDFFF) || *point > 0x10FFFF;
    return wrong ? 0 : length;
}

// How many letters to insert, drop or replace to turn one word into the other.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

struct CodeRange {
    uint32_t first;
    uint32_t last;
};

// Control, invisible and bidirectional formatting characters, and the backslash that escapes them.
constexpr CodeRange kUnsafe[] = {
    {0x00, 0x1F},     {0x5C, 0x5C},     {0x7F, 0x9F},     {0xAD, 0xAD},
    {0x61C, 0x61C},   {0x180E, 0x180E}, {0x200B, 0x200F}, {0x2028, 0x202E},
    {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF0, 0xFFFB}, {0xE0000, 0xE0FFF},
};

bool IsUnsafe(uint32_t point) {
    return std::any_of(std::begin(kUnsafe), std::end(kUnsafe), [point](const CodeRange& range) {
        return point >= range.first && point <= range.last;
    });
}

}  // namespace

FieldText ReadField(const void* field, size_t size) {
    const char* text = static_cast<const char*>(field);
    const size_t length = strnlen(text, size);
    return {std::string(text, length), length < size};
}

std::string Printable(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        uint32_t point = 0;
        const size_t valid = Utf8Length(text, &point);
        const size_t length = std::max<size_t>(valid, 1);
        if (valid > 0 && !IsUnsafe(point)) {
            out += text.substr(0, length);
        } else {
            for (const char c : text.substr(0, length)) {
                out += "\\x" + Hex(&c, 1);
            }
        }
        text.remove_prefix(length);
    }
    return out;
}

std::string MarkupText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& known) {
    std::string nearest;
    size_t best = std::max<size_t>(word.size() / 2, 1) + 1;
    for (const std::string& name : known) {
        const size_t distance = EditDistance(word, name);
        if (distance < best) {
            best = distance;
            nearest = name;
        }
    }
    return nearest.empty() ? "" : " (did you mean '" + nearest + "'?)";
}

std::string Trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return "";
    }
    return std::string(text.substr(first, text.find_last_not_of(" \t\r") - first + 1));
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
    const std::string text = std::to_string(bytes) + " bytes";
    return bytes < 1024 ? text : text + " (" + ShortSizeText(bytes) + ")";
}

std::string ShortSizeText(uint64_t bytes) {
    const auto value = static_cast<double>(bytes);
    if (bytes >= 1048576) {
        return Decimal(value / (1024.0 * 1024.0), "MiB");
    }
    return bytes >= 1024 ? Decimal(value / 1024.0, "KiB") : std::to_string(bytes) + " bytes";
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
    return LowerHex(digest.data(), digest.size());
}

std::string Sha256Hex(const uint8_t* data, size_t size) {
    SHA2_CTX context;
    SHA256Init(&context);
    SHA256Update(&context, data, size);
    std::array<uint8_t, SHA256_DIGEST_LENGTH> digest{};
    SHA256Final(digest.data(), &context);
    return LowerHex(digest.data(), digest.size());
}

uint64_t ParseSize(const std::string& text) {
    const bool hexadecimal = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
    const size_t start = hexadecimal ? 2 : 0;
    const size_t end = std::min(
        text.find_first_not_of(hexadecimal ? "0123456789abcdefABCDEF" : "0123456789", start),
        text.size());
    const std::string number = text.substr(start, end - start);
    const std::string suffix = text.substr(end);
    static constexpr std::string_view kSuffixes = "KkMmGg";
    const size_t unit = suffix.size() == 1 ? kSuffixes.find(suffix[0]) : std::string_view::npos;
    // Any number with at most this many digits fits 64 bits with each suffix.
    if (number.empty() || number.size() > (hexadecimal ? 8 : 10) ||
        (!suffix.empty() && unit == std::string_view::npos)) {
        throw ToolError(ExitCode::kUsage,
                        "'" + Printable(text) +
                            "' is not a size; write up to 10 digits, or 0x and up to 8 hexadecimal "
                            "digits, then K, M or G if wanted");
    }
    const uint64_t value = std::stoull(number, nullptr, hexadecimal ? 16 : 10);
    return suffix.empty() ? value : value << (10 * (unit / 2 + 1));
}

}  // namespace kvtool
