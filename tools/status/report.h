// The output of `zelta status`. Pure; no I/O.
#pragma once

#include <string>

#include "tools/status/pcsc_view.h"

namespace zelta::status {

struct View {
  std::string agentJson;     // the agent's status; empty if none answers
  std::string agentProblem;  // why not, for people
  PcscView pcsc;
  std::string logFile;  // the driver's newest; empty if none can be seen
};

// One line for each item.
std::string reportText(const View& view);
// One JSON object on one line: the agent's, with more members.
std::string reportJson(const View& view);

}  // namespace zelta::status
