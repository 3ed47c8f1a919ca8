#include "agent/control/control.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>

#include "agent/trace/trace_record.h"
#include "contract/bytes.h"
#include "contract/harmless.h"

namespace zelta::agent {

namespace {

std::string answerAction(const std::string& problem) {
  return problem.empty() ? kControlOk : kControlError + problem + "\n";
}

std::string counted(std::uint64_t count, const std::string& one) {
  return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

using Json = nlohmann::ordered_json;

Json toJson(const Service::Status& status) {
  return {{"reader", status.reader},
          {"connected", status.connected},
          {"backend", status.backend},
          {"card", status.cardIn ? "in" : "out"},
          {"atr", status.atr.empty() ? Json() : Json(toHex(status.atr))},
          {"session_id", status.sessionId},
          {"apdus", status.apdus},
          {"errors", status.errors},
          {"timeouts", status.timeouts},
          {"reconnects", status.reconnects}};
}

// Each line of `text`, which ends with a line break.
std::string harmlessLines(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    result += harmless(line) + '\n';
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return result;
}

// Only these bytes, so that a terminal can show any text.
constexpr bool kAscii = true;

std::string lineOf(const Json& json) {
  return json.dump(-1, ' ', kAscii, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string statusText(const Service::Status& status) {
  std::string text;
  text += "reader:    " + std::to_string(status.reader) + "\n";
  text += std::string("driver:    ") + (status.connected ? "connected" : "not connected") + "\n";
  text += "back end:  " + harmless(status.backend) + "\n";
  text += std::string("card:      ") + (status.cardIn ? "in" : "out") + "\n";
  text += "ATR:       " + (status.atr.empty() ? "-" : toHex(status.atr)) + "\n";
  text += "session:   " + harmless(status.sessionId) + "\n";
  text += "counts:    " + counted(status.apdus, "APDU") + ", " + counted(status.errors, "error") +
          ", " + counted(status.timeouts, "time-out") + ", " +
          counted(status.reconnects, "reconnect") + "\n";
  return text;
}

std::string statusJson(const Service::Status& status) { return lineOf(toJson(status)); }

std::string traceBegin(const Service::Status& status) {
  Json begin = {{"time_us", toMicroseconds(TraceRecord::Clock::now())}, {"kind", "begin"}};
  begin.update(toJson(status));
  return lineOf(begin);
}

std::string answerControl(Service& service, const std::string& line) {
  if (line == kControlInsert) return answerAction(service.insertCard());
  if (line == kControlRemove) return answerAction(service.removeCard());
  if (line == kControlStatus) return kControlOk + statusText(service.status());
  if (line == kControlStatusJson) return kControlOk + statusJson(service.status());
  return kControlError + ("not understood: " + harmless(line)) + "\n";
}

std::string controlLine(const Options& options) {
  switch (options.action) {
    case Options::Action::kCtlInsert:
      return kControlInsert + std::string("\n");
    case Options::Action::kCtlRemove:
      return kControlRemove + std::string("\n");
    default:
      return (options.json ? kControlStatusJson : kControlStatus) + std::string("\n");
  }
}

ControlResult readControlAnswer(const std::string& answer) {
  const std::string ok = kControlOk;
  const std::string error = kControlError;
  if (answer.compare(0, ok.size(), ok) == 0) return {true, harmlessLines(answer.substr(ok.size()))};
  if (answer.compare(0, error.size(), error) == 0)
    return {false, harmlessLines(answer.substr(error.size()))};
  return {false, "the agent gave no answer\n"};
}

}  // namespace zelta::agent
