// The program around the agent. `runProgram` is the same on every system; the functions that it
// calls differ.
#pragma once

#include <string>
#include <string_view>

#include "agent/program/log.h"
#include "agent/program/options.h"

namespace zelta::agent {

// The whole program; returns its exit code.
int runProgram(int argc, const char* const* argv);
// Tells the user what the agent has answered to a control command; returns the program's exit code.
int showControlAnswer(const std::string& answer);

// Each system implements these:

extern const Edition kEdition;

// The destination of the agent's log.
Log::Sink standardErrorSink();
// Runs the agent until it is ended; returns the program's exit code. What it throws ends the
// program with a line in the log.
int runAgent(const Options& options, Log& log);
// Runs what is not the agent itself, `ctl` or `service`; returns the program's exit code.
int runCommand(const Options& options);
// Needs no memory.
void writeStandardError(std::string_view text);

}  // namespace zelta::agent
