#include "tools/ladder/svg.h"

#include <array>
#include <cstdio>

#include "tools/base/text.h"

namespace kvtool::ladder::svg {

namespace {

constexpr double kLetter = 6.3;  // average width of a letter of a label

constexpr char kStyle[] = R"(<style>
text { font: 11px system-ui, "Segoe UI", Roboto, Helvetica, Arial, sans-serif; fill: #1f2328 }
.title { font-size: 14px; font-weight: 600 }
.boot { font-size: 12px; font-weight: 600 }
.soft { fill: #59636e }
.on { fill: #fff; text-anchor: middle }
.onlight { fill: #1f2328; text-anchor: middle }
.page { fill: #fff; stroke: #d1d9e0 }
.axis, .tick { stroke: #818b98 }
.step { stroke: #1f2328; stroke-width: 1.5 }
.flag { stroke: #818b98; stroke-dasharray: 2 2 }
.break { fill: #fff }
.label { paint-order: stroke; stroke: #fff; stroke-width: 3px }
.ready { fill: #1a7f37 } .not_ready { fill: #0e7490 } .silent { fill: #d1d9e0 } .offline { fill: #f2b84b }
.recovery { fill: #0969da } .upgrade { fill: #8250df } .button { fill: #9a6700 } .marker { fill: #cf222e }
.lane { fill: #f0f2f4 }
@media (prefers-color-scheme: dark) {
text { fill: #e6edf3 }
.soft { fill: #9198a1 }
.on { fill: #fff }
.onlight { fill: #0d1117 }
.page { fill: #0d1117; stroke: #3d444d }
.axis, .tick { stroke: #656c76 }
.step { stroke: #e6edf3 }
.flag { stroke: #656c76 }
.break { fill: #0d1117 }
.label { stroke: #0d1117 }
.ready { fill: #238636 } .not_ready { fill: #0e7490 } .silent { fill: #8b949e } .offline { fill: #d29922 }
.recovery { fill: #1f6feb } .upgrade { fill: #8957e5 } .button { fill: #e3b341 } .marker { fill: #f85149 }
.lane { fill: #1c2129 }
}
</style>
)";

}  // namespace

const char* StyleSheet() {
    return kStyle;
}

std::string Number(double value) {
    std::array<char, 32> text{};
    (void)snprintf(text.data(), text.size(), "%.1f", value);
    std::string number = text.data();
    if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0) {
        number.resize(number.size() - 2);
    }
    return number;
}

double TextWidth(const std::string& text) {
    return kLetter * static_cast<double>(text.size());
}

std::string Rect(double x, double y, double width, double height, const std::string& style,
                 double round) {
    return "<rect x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" width=\"" + Number(width) +
           "\" height=\"" + Number(height) + "\"" +
           (round > 0 ? " rx=\"" + Number(round) + "\"" : "") + " class=\"" + style + "\"/>\n";
}

std::string Line(double x1, double y1, double x2, double y2, const char* style) {
    return "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" + Number(x2) +
           "\" y2=\"" + Number(y2) + "\" class=\"" + style + "\"/>\n";
}

std::string Text(double x, double y, const std::string& text, const char* style,
                 const char* anchor) {
    return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\"" +
           (*style != '\0' ? " class=\"" + std::string(style) + "\"" : "") +
           (*anchor != '\0' ? " text-anchor=\"" + std::string(anchor) + "\"" : "") + ">" +
           MarkupText(text) + "</text>\n";
}

}  // namespace kvtool::ladder::svg
