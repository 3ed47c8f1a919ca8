// The program on Windows: command line, and the agent in a console or as a service.
#include <windows.h>
// windows.h comes first
#include <array>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/card/pcsc_card.h"
#include "agent/card/script_card.h"
#include "agent/control/control.h"
#include "agent/control/control_socket.h"
#include "agent/platform/console_end_win32.h"
#include "agent/platform/event_log_win32.h"
#include "agent/platform/pipe_connection_win32.h"
#include "agent/platform/service_win32.h"
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

// The agent's environment: a console or a service.
struct Surroundings {
  HANDLE endRequested;
  std::function<void()> ready;  // or none
  AgentRun::Leave leave;
  const char* ending;  // what the log says when the end is requested
};

// `controlPipe` is for options that name none.
int serve(const Options& options, const std::string& controlPipe, const Surroundings& around,
          Log& log) {
  const platform::ScopedKernelHandle failed = makeEvent();
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
  const std::string path = options.control.empty() ? controlPipe : options.control;
  const std::unique_ptr<ControlServer> control = openControlServer(
      path, [&agent](const std::string& line) { return answerControl(agent, line); }, onFailure);
  agent.start();
  log.info(std::string("zelta-agent ") + kVersion + ": reader " + std::to_string(options.reader) +
           ", " + backend->name() + " card, session " + settings.sessionId + ", control " + path);
  AgentRun run(agent, onFailure);
  if (around.ready) around.ready();
  const std::array<HANDLE, 2> endings = {failed.get(), around.endRequested};
  WaitForMultipleObjects(static_cast<DWORD>(endings.size()), endings.data(), FALSE, INFINITE);
  if (failure.problem() == nullptr) log.info(around.ending);
  control->removePath();
  return run.stop(failure, log, around.leave);
}

// The service's own log is the system's event log.
int runAsService(const Options& options) {
  return runService(options.reader, [&options](ServiceRun& service) {
    Log log(options.logLevel, eventLogSink(serviceName(options.reader)));
    Surroundings around;
    around.endRequested = service.endRequested();
    around.ready = [&service] { service.ready(); };
    around.leave = [&service](int exitCode) { service.endProcess(exitCode); };
    around.ending = "Ending: asked to stop";
    try {
      return serve(options, defaultControlPipes(options.reader).front(), around, log);
    } catch (const std::exception& error) {
      log.error(error.what());
      return kExitFailed;
    }
  });
}

std::string ask(const Options& options) {
  const std::string line = controlLine(options);
  if (!options.control.empty()) return askAgent({options.control}, line);
  try {
    return askAgent(defaultControlPipes(options.reader), line);
  } catch (const NoAgentError& error) {
    throw std::runtime_error(std::string(error.what()) + "; to start the service: sc start " +
                             serviceName(options.reader));
  }
}

}  // namespace

Log::Sink standardErrorSink() {
  return [](Severity level, const std::string& line) {
    std::cerr << timeStamp() + " " + severityName(level) + ": " + line + "\n" << std::flush;
  };
}

int runAgent(const Options& options, Log& log) {
  Surroundings console;
  console.endRequested = followConsole();
  console.leave = std::_Exit;
  console.ending = "Ending: interrupted";
  return serve(options, defaultControlPipes(options.reader).back(), console, log);
}

int runCommand(const Options& options) {
  switch (options.action) {
    case Options::Action::kServiceInstall:
      installService(options);
      return kExitDone;
    case Options::Action::kServiceRemove:
      removeService(options.reader);
      return kExitDone;
    case Options::Action::kServiceRun:
      return runAsService(options);
    default:
      return showControlAnswer(ask(options));
  }
}

void writeStandardError(std::string_view text) {
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
}

}  // namespace zelta::agent
