// The program on Windows: command line, console events and the agent.
#include <windows.h>
// windows.h comes first
#include <array>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/card/pcsc_card.h"
#include "agent/card/script_card.h"
#include "agent/control/control.h"
#include "agent/control/control_socket.h"
#include "agent/platform/console_end_win32.h"
#include "agent/platform/pipe_connection_win32.h"
#include "agent/program/agent.h"
#include "agent/program/agent_run.h"
#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "agent/program/program.h"
#include "agent/program/session_id.h"
#include "agent/trace/card_recorder.h"
#include "agent/trace/trace_hub.h"
#include "agent/version.h"
#include "contract/control.h"

namespace zelta::agent {

const Edition kEdition = {System::kWindows, "Ctrl-C and Ctrl-Break end the agent."};

namespace {

std::unique_ptr<CardBackend> makeBackend(const Options& options, Log& log) {
  if (options.backend == BackendKind::kScript) {
    return loadScriptCard(options.scriptFile, options.cardIn);
  }
  return std::make_unique<PcscCard>(options.pcscReader, log);
}

}  // namespace

Log::Sink standardErrorSink() {
  return [](Severity level, const std::string& line) {
    std::cerr << timeStamp() + " " + severityName(level) + ": " + line + "\n" << std::flush;
  };
}

int runAgent(const Options& options, Log& log) {
  const HANDLE endRequested = followConsole();
  const ScopedHandle failed = makeEvent();
  FailureNote failure([&failed] { SetEvent(failed.get()); });
  const OnFailure onFailure = [&failure](const char* problem) { failure.take(problem); };
  Agent::Settings settings;
  settings.reader = options.reader;
  settings.sessionId = options.sessionId.empty() ? newSessionId() : options.sessionId;
  settings.onFailure = onFailure;
  std::optional<CardRecorder> recorder;
  TraceHub hub;
  if (!options.recordFile.empty()) hub.alsoTell(recorder.emplace(options.recordFile, log));
  settings.trace = &hub;

  const std::unique_ptr<PipeClientPort> pipes = makeSystemPipeClient();
  const std::unique_ptr<CardBackend> backend = makeBackend(options, log);
  Agent agent(*pipes, *backend, settings, log);
  const std::string path =
      options.control.empty() ? defaultControlPipes(options.reader).front() : options.control;
  const std::unique_ptr<ControlServer> control = openControlServer(
      path, [&agent](const std::string& line) { return answerControl(agent, line); }, onFailure);
  agent.start();
  log.info(std::string("zelta-agent ") + kVersion + ": reader " + std::to_string(options.reader) +
           ", " + backend->name() + " card, session " + settings.sessionId + ", control " + path);
  AgentRun run(agent, onFailure);
  const std::array<HANDLE, 2> endings = {failed.get(), endRequested};
  WaitForMultipleObjects(static_cast<DWORD>(endings.size()), endings.data(), FALSE, INFINITE);
  if (failure.problem() == nullptr) log.info("Ending: interrupted");
  control->removePath();
  return run.stop(failure, log);
}

int runControl(const Options& options) {
  const std::vector<std::string> paths = options.control.empty()
                                             ? defaultControlPipes(options.reader)
                                             : std::vector<std::string>{options.control};
  return showControlAnswer(askAgent(paths, controlLine(options)));
}

void writeStandardError(std::string_view text) {
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
}

}  // namespace zelta::agent
