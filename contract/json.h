// The little of JSON that the control socket speaks: one object a line, whose members are texts,
// numbers, true, false and null. Pure; any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace zelta {

// As a JSON string, with its quotation marks. What is not ASCII is passed on as it is.
std::string quoteJson(std::string_view text);

// Member names with their values: a text without its quotation marks, anything else as it is
// written ("12", "true", "null").
using JsonObject = std::map<std::string, std::string>;

// None if the line is anything but one such object.
std::optional<JsonObject> parseJsonObject(std::string_view line);

}  // namespace zelta
