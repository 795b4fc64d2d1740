// The JSON that kvtool prints; docs/kvtool-json.md describes it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kvtool {

using Json = nlohmann::ordered_json;

// Part of each object. Increases when a key is removed or changes meaning.
constexpr int kJsonSchema = 1;

// One line of ASCII without a newline.
inline std::string JsonLine(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace kvtool
