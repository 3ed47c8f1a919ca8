// The messages on the control socket: what `zelta-agent ctl` asks, what the agent answers, and how
// the answer is shown.
#pragma once

#include <string>

#include "agent/program/options.h"
#include "agent/program/service.h"
#include "contract/control.h"

namespace zelta::agent {

// `line` is what a client sent, without its line break.
std::string answerControl(Service& service, const std::string& line);

// The request line for these options.
std::string controlLine(const Options& options);

struct ControlResult {
  bool success = false;
  std::string text;  // for the user and a terminal; without "error: "
};
ControlResult readControlAnswer(const std::string& answer);

std::string statusText(const Service::Status& status);
// One JSON object on one line.
std::string statusJson(const Service::Status& status);
// A trace's first line: the state at its beginning. See docs/trace.md.
std::string traceBegin(const Service::Status& status);

}  // namespace zelta::agent
