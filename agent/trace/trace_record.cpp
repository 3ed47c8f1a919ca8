#include "agent/trace/trace_record.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace zelta::agent {

namespace {

using Kind = TraceRecord::Kind;

struct Name {
  Kind kind;
  const char* text;
};

constexpr Name kNames[] = {
    {Kind::kInsert, "insert"},         {Kind::kRemove, "remove"}, {Kind::kConnect, "connect"},
    {Kind::kDisconnect, "disconnect"}, {Kind::kReset, "reset"},   {Kind::kAtr, "atr"},
    {Kind::kTransmit, "transmit"},     {Kind::kReady, "ready"},   {Kind::kLate, "late"},
};

bool isExchange(Kind kind) {
  return kind == Kind::kReset || kind == Kind::kAtr || kind == Kind::kTransmit;
}

bool hidesSomething(const TraceRecord& record) {
  return record.hidden.command.size + record.hidden.response.size != 0;
}

}  // namespace

const char* kindName(Kind kind) {
  return std::find_if(std::begin(kNames), std::end(kNames),
                      [kind](const Name& name) { return name.kind == kind; })
      ->text;
}

std::int64_t toMicroseconds(TraceRecord::Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

std::string toJson(const TraceRecord& record, bool secrets) {
  const HiddenParts hidden = secrets ? HiddenParts() : record.hidden;
  nlohmann::ordered_json json = {{"time_us", toMicroseconds(record.time)},
                                 {"kind", kindName(record.kind)}};
  if (isExchange(record.kind)) json["duration_us"] = record.duration.count();
  if (record.command.size() != 0) {
    json["command"] = toMaskedHex(record.command.get(), hidden.command);
  }
  if (isExchange(record.kind)) {
    json["response"] = toMaskedHex(record.response.get(), hidden.response);
    json["masked"] = !secrets && hidesSomething(record);
  }
  return json.dump();
}

}  // namespace zelta::agent
