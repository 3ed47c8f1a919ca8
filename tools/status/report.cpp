#include "tools/status/report.h"

#include <cstddef>
#include <optional>

#include "contract/bytes.h"
#include "contract/harmless.h"
#include "tools/trace/agent_json.h"
#include "tools/trace/atr.h"

namespace zelta::status {

namespace {

using trace::Json;
using trace::parseObject;
using trace::textOf;

constexpr std::size_t kLabelWidth = 11;
constexpr std::size_t kAtrLabelWidth = 12;

std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(text.size() < width ? width - text.size() : 1, ' ');
}

std::string row(const std::string& label, const std::string& value) {
  return padded(label + ":", kLabelWidth) + (value.empty() ? "-" : harmless(value)) + "\n";
}

std::string counted(const Json& agent, const char* name, const std::string& one) {
  const std::string count = textOf(agent, name);
  return (count.empty() ? "-" : count) + " " + one + (count == "1" ? "" : "s");
}

Bytes atrOf(const View& view, const Json& agent) {
  const std::optional<Bytes> agents = parseHex(textOf(agent, "atr"));
  return agents && !agents->empty() ? *agents : view.pcsc.atr;
}

std::string withProblem(const std::string& value, const std::string& problem) {
  return value.empty() && !problem.empty() ? "- (" + problem + ")" : value;
}

Json textOrNull(const std::string& text) { return text.empty() ? Json() : Json(text); }

}  // namespace

std::string reportText(const View& view) {
  const Json agent = parseObject(view.agentJson);
  std::string text;
  if (!view.agentProblem.empty()) text += row("agent", view.agentProblem);
  if (!agent.empty()) text += row("reader", textOf(agent, "reader"));
  text += row("name", withProblem(view.pcsc.reader, view.pcsc.problem));
  text += row("state", withProblem(view.pcsc.state, view.pcsc.problem));
  text += row("protocol", view.pcsc.state.empty() || view.pcsc.state == "absent"
                              ? view.pcsc.protocol
                              : withProblem(view.pcsc.protocol, view.pcsc.problem));
  if (!agent.empty()) {
    text += row("driver", textOf(agent, "connected") == "true" ? "connected" : "not connected");
    text += row("back end", textOf(agent, "backend"));
    text += row("card", textOf(agent, "card"));
  }
  const Bytes atr = atrOf(view, agent);
  text += row("ATR", toHex(atr));
  if (!atr.empty()) {
    for (const auto& [name, value] : trace::describeAtr(atr)) {
      text += "  " + padded(name, kAtrLabelWidth) + value + "\n";
    }
  }
  if (!agent.empty()) {
    text += row("session", textOf(agent, "session_id"));
    text +=
        row("counts", counted(agent, "apdus", "APDU") + ", " + counted(agent, "errors", "error") +
                          ", " + counted(agent, "timeouts", "time-out") + ", " +
                          counted(agent, "reconnects", "reconnect"));
  }
  return text + row("log file", view.logFile);
}

std::string reportJson(const View& view) {
  const Json agent = parseObject(view.agentJson);
  Json json = agent.is_null() ? Json::object({{"agent", nullptr}}) : agent;
  json["name"] = textOrNull(view.pcsc.reader);
  json["state"] = textOrNull(view.pcsc.state);
  json["protocol"] = textOrNull(view.pcsc.protocol);
  json["log_file"] = textOrNull(view.logFile);
  Json& decoded = json["atr_decoded"];
  const Bytes atr = atrOf(view, agent);
  if (!atr.empty()) {
    for (const auto& [name, value] : trace::describeAtr(atr)) decoded[name] = value;
  }
  return trace::dumpLine(json) + "\n";
}

}  // namespace zelta::status
