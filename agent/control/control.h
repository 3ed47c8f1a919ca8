// What the control socket's two ends say: what the agent answers, what `zelta-agent ctl` asks, and
// how it shows the answer.
#pragma once

#include <string>

#include "agent/program/options.h"
#include "agent/program/service.h"
#include "contract/control.h"

namespace zelta::agent {

// `line` is what a client sent, without its line break.
std::string answerControl(Service& service, const std::string& line);

// The line that asks for what the options want.
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
