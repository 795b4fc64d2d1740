// The elements of a picture's SVG, and their style sheet for light and dark pages.
#pragma once

#include <string>

namespace kvtool::ladder::svg {

// The element with the style sheet. It names the classes that the `style` below may be.
const char* StyleSheet();

// A number with at most one decimal.
std::string Number(double value);

// The estimated width of a text in the font of labels.
double TextWidth(const std::string& text);

std::string Rect(double x, double y, double width, double height, const std::string& style,
                 double round = 0);
std::string Line(double x1, double y1, double x2, double y2, const char* style);
// `text` must be safe to print; it is escaped here. `anchor`: "middle", "end" or empty.
std::string Text(double x, double y, const std::string& text, const char* style,
                 const char* anchor = "");

}  // namespace kvtool::ladder::svg
