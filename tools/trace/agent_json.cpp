#include "tools/trace/agent_json.h"

namespace zelta::trace {

Json parseObject(std::string_view line) {
  Json object = Json::parse(line, nullptr, false);
  return object.is_object() ? object : Json();
}

std::string textOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end() || found->is_null()) return {};
  return found->is_string() ? found->get<std::string>() : dumpLine(*found);
}

std::string dumpLine(const Json& json) {
  return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace zelta::trace
