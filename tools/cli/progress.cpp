#include "tools/cli/progress.h"

#include <cmath>
#include <string_view>

#include "tools/base/text.h"

namespace kvtool {

namespace {

constexpr double kStalls = 3.0;  // seconds without progress that the line reports

std::string WholeSeconds(double seconds) {
    return std::to_string(std::lround(seconds)) + " s";
}

}  // namespace

std::string ProgressText(const UploadProgress& progress, double rate, size_t columns) {
    const uint64_t percent = progress.total > 0 ? progress.acknowledged * 100 / progress.total : 0;
    std::vector<std::string> parts = {"upload " + std::to_string(percent) + "%"};
    if (progress.silent >= kStalls) {
        parts.push_back("stalled for " + WholeSeconds(progress.silent));
        parts.push_back("gives up at " + WholeSeconds(progress.stallLimit));
    } else if (rate > 0) {
        const auto left = static_cast<double>(progress.total - progress.acknowledged);
        parts.push_back(WholeSeconds(std::ceil(left / rate)) + " left");
        parts.push_back(ShortSizeText(static_cast<uint64_t>(rate)) + "/s");
    }
    parts.push_back("of " + ShortSizeText(progress.total));
    std::string text;
    for (const std::string& part : parts) {
        const std::string_view between = text.empty() ? "" : ", ";
        if (text.size() + between.size() + part.size() > columns) {
            break;
        }
        text.append(between).append(part);
    }
    return text;
}

}  // namespace kvtool
