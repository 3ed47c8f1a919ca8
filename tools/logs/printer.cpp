#include "tools/logs/printer.h"

#include <algorithm>
#include <utility>

namespace zelta::logs {

bool matches(const Filter& filter, const Record& record) {
  if (record.level > filter.level) return false;
  if (record.time < filter.since) return false;
  if (record.session.substr(0, filter.session.size()) != filter.session) return false;
  return filter.tags.empty() ||
         std::any_of(filter.tags.begin(), filter.tags.end(),
                     [&](const std::string& tag) { return hasTag(record.message, tag); });
}

Printer::Printer(Filter filter, const Look& look, View::Output output)
    : filter_(std::move(filter)),
      secrets_(look.secrets),
      view_(makeView(look, std::move(output))) {}

void Printer::print(std::string_view line, const std::filesystem::path& file) {
  if (auto record = parseRecord(line)) {
    lastShown_ = matches(filter_, *record);
    const std::string masked = mask_.masked(record->thread, record->message);
    if (!secrets_) record->message = masked;
    if (lastShown_) view_->showRecord(*record, file);
  } else if (isHeader(line)) {
    lastShown_ = !std::exchange(headerShown_, true);
    if (lastShown_) view_->showHeader(line);
  } else if (lastShown_) {
    view_->showRest(line, file);
  }
}

}  // namespace zelta::logs
