// The options --layout and --size.
#pragma once

#include <string>
#include <vector>

#include "tools/package/layout.h"

namespace kvtool {

struct LayoutOptions {
    std::string file;
    std::vector<std::string> sizes;

    // Throws ToolError(kUsage).
    void Apply(Layout* layout) const {
        if (!file.empty()) {
            layout->ReadFile(file);
        }
        for (const std::string& size : sizes) {
            layout->SetSize(size);
        }
    }
    // The standard layout with these changes.
    Layout Make() const {
        Layout layout = Layout::Default();
        Apply(&layout);
        return layout;
    }
};

// A command with the layout that its options name.
template <typename Command>
struct WithLayout {
    Command command;
    LayoutOptions layout;
};

}  // namespace kvtool
