// JSON as kvtool gives it to programs; docs/kvtool-json.md describes it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kvtool {

using Json = nlohmann::ordered_json;

// In each object; grows when a key goes or changes its meaning.
constexpr int kJsonSchema = 1;

// One line of ASCII without its end.
inline std::string JsonLine(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace kvtool
