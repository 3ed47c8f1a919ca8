#include "tools/trace/page.h"

#include <string_view>

#include "tools/trace/agent_json.h"
#include "tools/trace/page_template.h"

namespace zelta::trace {

namespace {

constexpr std::string_view kPlace = "@RECORDS@";

// Escapes text that could end the element that holds the records.
std::string forScript(std::string json) {
  for (std::size_t at = 0; (at = json.find('<', at)) != std::string::npos;) {
    json.replace(at, 1, "\\u003C");
  }
  return json;
}

Json toJson(const Record& record, const Words& words) {
  return {{"time", record.time},    {"duration", record.duration},
          {"kind", record.kind},    {"exchange", record.isExchange()},
          {"good", words.good},     {"connected", record.connected},
          {"card", record.card},    {"what", words.what},
          {"answer", words.answer}, {"details", words.details}};
}

}  // namespace

std::string makePage(const std::vector<Record>& records) {
  Reader reader;
  Json all = Json::array();
  for (const Record& record : records) all.push_back(toJson(record, reader.describe(record)));
  std::string page = kPage;
  return page.replace(page.find(kPlace), kPlace.size(), forScript(dumpLine(all)));
}

}  // namespace zelta::trace
