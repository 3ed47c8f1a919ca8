#include "tools/status/report.h"

#include <cstddef>
#include <optional>

#include "contract/bytes.h"
#include "contract/json.h"
#include "tools/trace/atr.h"

namespace zelta::status {

namespace {

constexpr std::size_t kLabelWidth = 11;
constexpr std::size_t kAtrLabelWidth = 12;

std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(text.size() < width ? width - text.size() : 1, ' ');
}

std::string row(const std::string& label, const std::string& value) {
  return padded(label + ":", kLabelWidth) + (value.empty() ? "-" : value) + "\n";
}

std::string valueOf(const JsonObject& object, const char* name) {
  const auto found = object.find(name);
  return found == object.end() || found->second == "null" ? std::string() : found->second;
}

std::string counted(const JsonObject& agent, const char* name, const std::string& one) {
  const std::string count = valueOf(agent, name);
  return (count.empty() ? "-" : count) + " " + one + (count == "1" ? "" : "s");
}

Bytes atrOf(const View& view, const JsonObject& agent) {
  const std::optional<Bytes> agents = parseHex(valueOf(agent, "atr"));
  return agents && !agents->empty() ? *agents : view.pcsc.atr;
}

std::string withProblem(const std::string& value, const std::string& problem) {
  return value.empty() && !problem.empty() ? "- (" + problem + ")" : value;
}

JsonObject parsed(const View& view) {
  return parseJsonObject(view.agentJson).value_or(JsonObject());
}

std::string textOrNull(const std::string& text) { return text.empty() ? "null" : quoteJson(text); }

}  // namespace

std::string reportText(const View& view) {
  const JsonObject agent = parsed(view);
  std::string text;
  if (!view.agentProblem.empty()) text += row("agent", view.agentProblem);
  if (!agent.empty()) text += row("reader", valueOf(agent, "reader"));
  text += row("name", withProblem(view.pcsc.reader, view.pcsc.problem));
  text += row("state", withProblem(view.pcsc.state, view.pcsc.problem));
  text += row("protocol", view.pcsc.protocol);
  if (!agent.empty()) {
    text += row("driver", valueOf(agent, "connected") == "true" ? "connected" : "not connected");
    text += row("back end", valueOf(agent, "backend"));
    text += row("card", valueOf(agent, "card"));
  }
  const Bytes atr = atrOf(view, agent);
  text += row("ATR", atr.empty() ? "not known" : toHex(atr));
  if (!atr.empty()) {
    for (const auto& [name, value] : trace::describeAtr(atr)) {
      text += "  " + padded(name, kAtrLabelWidth) + value + "\n";
    }
  }
  if (!agent.empty()) {
    text += row("session", valueOf(agent, "session_id"));
    text +=
        row("counts", counted(agent, "apdus", "APDU") + ", " + counted(agent, "errors", "error") +
                          ", " + counted(agent, "timeouts", "time-out") + ", " +
                          counted(agent, "reconnects", "reconnect"));
  }
  return text + row("log file", view.logFile);
}

std::string reportJson(const View& view) {
  std::string json = view.agentJson;
  const std::size_t end = json.rfind('}');
  json = end == std::string::npos ? "{\"agent\":null," : json.substr(0, end) + ",";
  json += "\"name\":" + textOrNull(view.pcsc.reader) + ",\"state\":" + textOrNull(view.pcsc.state) +
          ",\"protocol\":" + textOrNull(view.pcsc.protocol) +
          ",\"log_file\":" + textOrNull(view.logFile) + ",\"atr_decoded\":";
  const Bytes atr = atrOf(view, parsed(view));
  if (atr.empty()) return json + "null}\n";
  std::string members;
  for (const auto& [name, value] : trace::describeAtr(atr)) {
    members += (members.empty() ? "" : ",") + quoteJson(name) + ":" + quoteJson(value);
  }
  return json + "{" + members + "}}\n";
}

}  // namespace zelta::status
