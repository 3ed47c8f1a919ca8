#include "agent/program/program.h"

#include <exception>
#include <iostream>

#include "agent/control/control.h"

namespace zelta::agent {

namespace {

int runWithMemory(int argc, const char* const* argv) {
  const ParsedOptions parsed = parseOptions(argc, argv, kEdition);
  std::cout << parsed.output << std::flush;
  std::cerr << parsed.error << std::flush;
  if (!parsed.options) return parsed.exitCode;
  const Options& options = *parsed.options;
  const bool isAgent = options.action == Options::Action::kRun;
  Log log(options.logLevel, standardErrorSink());
  try {
    if (isAgent && options.pin) {
      log.warning("The PIN stands on the command line, where others can read it; use --pin-file");
    }
    return isAgent ? runAgent(options, log) : runCommand(options);
  } catch (const std::exception& error) {
    if (isAgent) {
      log.error(error.what());
    } else {
      std::cerr << "zelta-agent: " << error.what() << "\n";
    }
    return kExitFailed;
  }
}

}  // namespace

int showControlAnswer(const std::string& answer) {
  const ControlResult result = readControlAnswer(answer);
  if (result.success) {
    std::cout << result.text;
    return kExitDone;
  }
  std::cerr << "zelta-agent: " << result.text;
  return kExitFailed;
}

int runProgram(int argc, const char* const* argv) {
  try {
    return runWithMemory(argc, argv);
  } catch (const std::exception&) {
    writeStandardError("zelta-agent: out of memory\n");
    return kExitFailed;
  }
}

}  // namespace zelta::agent
