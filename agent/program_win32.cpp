// The program on Windows: command line, console events and the agent. There is no control socket:
// the scripted card comes and goes as its script says.
#include <windows.h>
// windows.h comes first
#include <cstdlib>
#include <future>
#include <iostream>
#include <stdexcept>
#include <string>

#include "agent/agent.h"
#include "agent/options.h"
#include "agent/program.h"
#include "agent/script_backend.h"
#include "agent/session_id.h"
#include "agent/time_stamp.h"
#include "agent/version.h"

namespace zelta::agent {

namespace {

// How long a card that cannot be interrupted may hold up the end.
constexpr std::chrono::seconds kEndLimit{2};

// Set by the console's handler, which runs on a thread of the system's.
HANDLE endRequested = nullptr;

BOOL WINAPI onConsoleEvent(DWORD /*event*/) {
  SetEvent(endRequested);
  return TRUE;
}

Log::Sink standardErrorSink() {
  return [](LogLevel level, const std::string& line) {
    std::cerr << timeStamp() + " " + levelName(level) + ": " + line + "\n" << std::flush;
  };
}

int runAgent(const Options& options, Log& log) {
  endRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(onConsoleEvent, TRUE);
  Agent::Settings settings;
  settings.reader = options.reader;
  settings.sessionId = options.sessionId.empty() ? newSessionId() : options.sessionId;

  const std::unique_ptr<PipeClientPort> pipes = makeSystemPipeClient();
  const std::unique_ptr<CardBackend> backend = makeScriptBackend(options);
  Agent agent(*pipes, *backend, settings, log);
  agent.start();
  log.info(std::string("zelta-agent ") + kVersion + ": reader " + std::to_string(options.reader) +
           ", " + backend->name() + " card, session " + settings.sessionId);
  std::future<void> ran = std::async(std::launch::async, [&agent] { agent.run(); });
  WaitForSingleObject(endRequested, INFINITE);
  log.info("Ending: interrupted");
  agent.stop();
  if (ran.wait_for(kEndLimit) != std::future_status::ready) {
    log.warning("The card does not end its command; leaving it behind");
    std::_Exit(kExitDone);
  }
  ran.get();
  return kExitDone;
}

}  // namespace

int runProgram(int argc, const char* const* argv) {
  const ParsedOptions parsed = parseOptions(argc, argv);
  std::cout << parsed.output << std::flush;
  std::cerr << parsed.error << std::flush;
  if (!parsed.options) return parsed.exitCode;
  const Options& options = *parsed.options;
  Log log(options.logLevel, standardErrorSink());
  try {
    if (options.action != Options::Action::Run) {
      throw std::runtime_error("ctl is not available on Windows");
    }
    if (options.backend != BackendKind::Script) {
      throw std::runtime_error("only --backend script is available on Windows");
    }
    return runAgent(options, log);
  } catch (const std::exception& error) {
    log.error(error.what());
    return kExitFailed;
  }
}

}  // namespace zelta::agent
