// Makes texts from files and the network safe to print, and numbers readable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvtool {

using Bytes = std::vector<uint8_t>;

// The text in a fixed-size field: everything before the first NUL.
struct FieldText {
    std::string text;
    bool terminated;  // false: no NUL in the field
};
FieldText ReadField(const void* field, size_t size);

// Makes a text from a device, a file or the command line safe to print. Control characters,
// characters that are invisible or change the text direction, bytes that are not UTF-8, and the
// backslash become \xNN, byte by byte. The result is valid UTF-8.
std::string Printable(std::string_view text);

// The text for HTML, SVG and XML, also inside an attribute.
std::string MarkupText(const std::string& text);

// " (did you mean 'NAME'?)" with the name that is most like the word; empty if none is like it.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& known);

// The text without spaces, tabs and carriage returns at its ends.
std::string Trimmed(std::string_view text);

// Upper-case hex digits with `separator` between bytes.
std::string Hex(const void* data, size_t size, std::string_view separator = "");

// "1234 bytes (1.2 KiB)".
std::string SizeText(uint64_t bytes);

// "1.2 KiB".
std::string ShortSizeText(uint64_t bytes);

// Seconds with one decimal: "12.3 s".
std::string SecondsText(double seconds);

// Lower-case MD5 of the bytes, 32 digits.
std::string Md5Hex(const uint8_t* data, size_t size);

// Lower-case SHA-256 of the bytes, 64 digits.
std::string Sha256Hex(const uint8_t* data, size_t size);

// The number of bytes in a decimal or hexadecimal text (0x10000) with an optional suffix K, M or G
// in either case (powers of 1024). Throws ToolError(kUsage).
uint64_t ParseSize(const std::string& text);

}  // namespace kvtool
