#include "tools/trace/page.h"

#include <string_view>

#include "contract/json.h"
#include "tools/trace/page_template.h"

namespace zelta::trace {

namespace {

constexpr std::string_view kPlace = "@RECORDS@";

// No text can end the element that the records are in.
std::string forScript(std::string json) {
  for (std::size_t at = 0; (at = json.find('<', at)) != std::string::npos;) {
    json.replace(at, 1, "\\u003C");
  }
  return json;
}

const char* asJson(bool value) { return value ? "true" : "false"; }

std::string toJson(const Record& record, const Words& words) {
  std::string details;
  for (const auto& [name, value] : words.details) {
    details += (details.empty() ? "[" : ",[") + quoteJson(name) + "," + quoteJson(value) + "]";
  }
  return "{\"time\":" + std::to_string(record.time) +
         ",\"duration\":" + std::to_string(record.duration) +
         ",\"kind\":" + quoteJson(record.kind) + ",\"exchange\":" + asJson(record.isExchange()) +
         ",\"good\":" + asJson(words.good) + ",\"connected\":" + asJson(record.connected) +
         ",\"card\":" + quoteJson(record.card) + ",\"what\":" + quoteJson(words.what) +
         ",\"answer\":" + quoteJson(words.answer) + ",\"details\":[" + details + "]}";
}

}  // namespace

std::string makePage(const std::vector<Record>& records) {
  Reader reader;
  std::string json;
  for (const Record& record : records) {
    json += (json.empty() ? "[" : ",\n") + toJson(record, reader.describe(record));
  }
  std::string page = kPage;
  return page.replace(page.find(kPlace), kPlace.size(),
                      forScript(json.empty() ? "[]" : json + "]"));
}

}  // namespace zelta::trace
