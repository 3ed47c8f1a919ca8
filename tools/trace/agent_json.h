// Parses the agent's output: one JSON object a line. Pure; no I/O.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace zelta::trace {

using Json = nlohmann::ordered_json;  // members stay in their order

// Null if the line is anything but an object.
Json parseObject(std::string_view line);

// The member as it is shown: a text without quotation marks. Empty if it is missing or null.
std::string textOf(const Json& object, const char* name);

// The value on one line. Bytes that are not UTF-8 are replaced.
std::string dumpLine(const Json& json);

}  // namespace zelta::trace
