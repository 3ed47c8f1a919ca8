#include "agent/control/control.h"

#include "contract/bytes.h"

namespace zelta::agent {

namespace {

std::string answerAction(const std::string& problem) {
  return problem.empty() ? kControlOk : kControlError + problem + "\n";
}

// As a JSON string. What is not ASCII is passed on as it is.
std::string quoted(const std::string& text) {
  std::string json = "\"";
  for (const char c : text) {
    const auto code = static_cast<std::uint8_t>(c);
    if (c == '"' || c == '\\') {
      json += '\\';
      json += c;
    } else if (code < ' ') {
      json += "\\u00" + toHex({code});
    } else {
      json += c;
    }
  }
  return json + "\"";
}

const char* asJson(bool value) { return value ? "true" : "false"; }

}  // namespace

std::string statusText(const Agent::Status& status) {
  std::string text;
  text += "reader:    " + std::to_string(status.reader) + "\n";
  text += std::string("driver:    ") + (status.connected ? "connected" : "not connected") + "\n";
  text += "back end:  " + status.backend + "\n";
  text += std::string("card:      ") + (status.cardIn ? "in" : "out") + "\n";
  text +=
      "ATR:       " + (status.atr.empty() ? std::string("not known") : toHex(status.atr)) + "\n";
  text += "session:   " + status.sessionId + "\n";
  return text;
}

std::string statusJson(const Agent::Status& status) {
  const std::string atr = status.atr.empty() ? "null" : quoted(toHex(status.atr));
  return "{\"reader\":" + std::to_string(status.reader) +
         ",\"connected\":" + asJson(status.connected) + ",\"backend\":" + quoted(status.backend) +
         ",\"card\":" + quoted(status.cardIn ? "in" : "out") + ",\"atr\":" + atr +
         ",\"session_id\":" + quoted(status.sessionId) + "}\n";
}

std::string answerControl(Agent& agent, const std::string& line) {
  if (line == kControlInsert) return answerAction(agent.insertCard());
  if (line == kControlRemove) return answerAction(agent.removeCard());
  if (line == kControlStatus) return kControlOk + statusText(agent.status());
  if (line == kControlStatusJson) return kControlOk + statusJson(agent.status());
  return kControlError + ("not understood: " + printable(line)) + "\n";
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
  if (answer.compare(0, ok.size(), ok) == 0) return {true, answer.substr(ok.size())};
  if (answer.compare(0, error.size(), error) == 0) return {false, answer.substr(error.size())};
  return {false, "the agent gave no answer\n"};
}

}  // namespace zelta::agent
