#include "tools/package/recipe.h"

#include <filesystem>

#include "tools/base/files.h"

namespace kvtool {

namespace {

[[noreturn]] void Wrong(const std::string& text) {
    throw ToolError(ExitCode::kUsage, text);
}

std::string Once(const std::string& key, const std::string& value, bool known) {
    if (known) {
        Wrong("'" + key + "' is given twice");
    }
    return value;
}

void ReadLine(const std::string& line, Recipe* recipe) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
        Wrong("'" + Printable(line) + "' is not KEY = VALUE");
    }
    const std::string key = Trimmed(line.substr(0, equals));
    const std::string value = Trimmed(line.substr(equals + 1));
    if (value.empty()) {
        Wrong("no value for '" + Printable(key) + "'");
    }
    if (key == "ic") {
        recipe->ic = Once(key, value, recipe->ic.has_value());
    } else if (key == "sensor") {
        recipe->sensor = Once(key, value, recipe->sensor.has_value());
    } else if (key == "layout") {
        recipe->layout = Once(key, value, !recipe->layout.empty());
    } else if (key == "size") {
        recipe->sizes.push_back(value);
    } else if (key == "image") {
        recipe->images.push_back(ParseNamedFile(value));
    } else {
        Wrong("'" + Printable(key) + "' is not one of ic, sensor, layout, size, image");
    }
}

}  // namespace

std::string Recipe::Resolve(const std::string& file) const {
    return std::filesystem::path(path).parent_path() / file;
}

Recipe ReadRecipe(const std::string& path) {
    Recipe recipe;
    recipe.path = path;
    for (const SourceLine& line : ReadLines(path)) {
        try {
            ReadLine(line.text, &recipe);
        } catch (const ToolError& error) {
            throw ToolError(error.Code(), line.where + error.what());
        }
    }
    return recipe;
}

}  // namespace kvtool
