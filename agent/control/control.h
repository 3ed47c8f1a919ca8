// What the control socket's two ends say to each other: one line to ask, one answer, then the end.
//
// Asked is "insert", "remove", "status" or "status json". The answer's first line is "ok" or
// "error: " with the reason; text for the user may follow.
#pragma once

#include <cstdint>
#include <string>

#include "agent/program/agent.h"
#include "agent/program/options.h"

namespace zelta::agent {

// The longest line that is read, in bytes.
inline constexpr std::size_t kLongestControlLine = 256;

// `line` is what a client sent, without its line break.
std::string answerControl(Agent& agent, const std::string& line);

// The line that asks for what the options want.
std::string controlLine(const Options& options);

struct ControlResult {
  bool success = false;
  std::string text;  // for the user; without "error: "
};
ControlResult readControlAnswer(const std::string& answer);

std::string statusText(const Agent::Status& status);
// One JSON object on one line.
std::string statusJson(const Agent::Status& status);

}  // namespace zelta::agent
