// The program: command line, signals, control socket and readiness around the agent.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "agent/card/backend_choice.h"
#include "agent/control/control.h"
#include "agent/control/control_socket.h"
#include "agent/platform/stop_event_linux.h"
#include "agent/program/agent.h"
#include "agent/program/agent_run.h"
#include "agent/program/failure.h"
#include "agent/program/program.h"
#include "agent/program/session_id.h"
#include "agent/trace/card_recorder.h"
#include "agent/trace/trace_hub.h"
#include "agent/version.h"
#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/pipe_path.h"

namespace zelta::agent {

const Edition kEdition = {
    "Signals: SIGUSR1 removes the card, SIGUSR2 inserts it, SIGINT and SIGTERM end\n"
    "the agent."};

namespace {

using platform::ScopedFd;

// The signals that the program waits for; blocked in every thread.
sigset_t waitedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&signals, signal);
  return signals;
}

std::string ask(const Options& options) {
  const std::string line = controlLine(options);
  if (!options.control.empty()) return askAgent({options.control}, line);
  try {
    return askAgent(defaultControlPaths(options.reader), line);
  } catch (const NoAgentError& error) {
    throw std::runtime_error(std::string(error.what()) +
                             "; to start the service: sudo systemctl start zelta-agent@" +
                             std::to_string(options.reader));
  }
}

// What the program waits for while the agent serves: signals, and a failure of a thread.
class Endings {
 public:
  // Blocks the signals for this thread and those that it makes from now on.
  Endings()
      : signals_(blockedSignals()),
        received_(checkedFd(signalfd(-1, &signals_, SFD_CLOEXEC), "signalfd")),
        failure_([this] { failed_.stop(); }) {}

  FailureNote& failure() { return failure_; }

  // Acts on signals until one of them, or a failure, ends the program.
  void follow(Agent& agent, Log& log) {
    for (;;) {
      if (failed_.waitFor(received_.get(), POLLIN).reason == StopEvent::Reason::kFailed) {
        throw std::system_error(errno, std::generic_category(), "poll");
      }
      if (failure_.problem() != nullptr) return;
      signalfd_siginfo signal{};
      if (read(received_.get(), &signal, sizeof signal) != sizeof signal) continue;
      if (signal.ssi_signo == SIGUSR1) {
        agent.removeCard();
      } else if (signal.ssi_signo == SIGUSR2) {
        agent.insertCard();
      } else {
        log.info(signal.ssi_signo == SIGINT ? "Ending: interrupted" : "Ending: asked to terminate");
        return;
      }
    }
  }

 private:
  static sigset_t blockedSignals() {
    const sigset_t signals = waitedSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
  }

  const sigset_t signals_;
  const ScopedFd received_;  // readable when a signal has come
  const StopEvent failed_;   // from the first failure on
  FailureNote failure_;
};

void tellState(bool connected) {
  sd_notify(0, connected ? "STATUS=Connected to the driver" : "STATUS=Waiting for the driver");
}

}  // namespace

int runControl(const Options& options) {
  const ControlResult result = readControlAnswer(ask(options));
  if (result.success) {
    std::cout << result.text;
    return kExitDone;
  }
  std::cerr << "zelta-agent: " << result.text;
  return kExitFailed;
}

int runAgent(const Options& options, Log& log) {
  Endings endings;  // first: threads take the blocked signals over
  const OnFailure onFailure = [&endings](const char* problem) { endings.failure().take(problem); };
  const std::string path =
      options.control.empty() ? defaultControlPaths(options.reader).front() : options.control;
  Agent::Settings settings;
  settings.reader = options.reader;
  settings.sessionId = options.sessionId.empty() ? newSessionId() : options.sessionId;
  settings.onConnection = tellState;
  settings.onFailure = onFailure;
  std::optional<CardRecorder> recorder;
  TraceHub hub;
  if (!options.recordFile.empty()) hub.alsoTell(recorder.emplace(options.recordFile, log));
  settings.trace = &hub;

  const std::unique_ptr<PipeClientPort> pipes = makeSystemPipeClient();
  const std::unique_ptr<CardBackend> backend = makeBackend(options, log);
  Agent agent(*pipes, *backend, settings, log);
  const std::unique_ptr<ControlServer> control = openControlServer(
      path, [&agent](const std::string& line) { return answerControl(agent, line); }, onFailure,
      controlLinkPath(platform::pipeRoot(), options.reader),
      [&](const std::string& line, std::function<void()> wake) {
        return hub.follow(line == kControlTraceSecrets, traceBegin(agent.status()),
                          std::move(wake));
      });
  agent.start();
  log.info(std::string("zelta-agent ") + kVersion + ": reader " + std::to_string(options.reader) +
           ", " + backend->name() + " card, session " + settings.sessionId + ", control " + path);
  AgentRun run(agent, onFailure);
  tellState(false);
  sd_notify(0, "READY=1");

  endings.follow(agent, log);
  sd_notify(0, "STOPPING=1");
  control->removePath();
  return run.stop(endings.failure(), log);
}

void writeStandardError(std::string_view text) {
  const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  static_cast<void>(written);
}

}  // namespace zelta::agent
