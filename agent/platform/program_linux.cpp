// The program: command line, signals, control socket and readiness around the agent. Not sd-event:
// its thread waits for signals and one event; everything that needs speed is on other threads.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
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
#include "agent/remote/forwarder.h"
#include "agent/remote/remote_card.h"
#include "agent/trace/card_recorder.h"
#include "agent/trace/trace_hub.h"
#include "agent/version.h"
#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/pipe_path.h"

namespace zelta::agent {

const Edition kEdition = {
    System::kLinux,
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
                             std::to_string(options.reader) +
                             "; an agent with --to answers at the path of its --control only");
  }
}

// What the program waits for while the agent serves: signals, and a failure of a thread.
class Endings {
 public:
  // Blocks the signals for this thread and the threads that it starts later.
  Endings()
      : signals_(blockedSignals()),
        received_(checkedFd(signalfd(-1, &signals_, SFD_CLOEXEC), "signalfd")),
        failure_([this] { failed_.stop(); }) {}

  FailureNote& failure() { return failure_; }

  // Ends the program as a signal does. Any thread.
  void end() {
    ended_ = true;
    failed_.stop();
  }

  // Acts on signals until one of them, a failure or `end` ends the program.
  void follow(Service& service, Log& log) {
    for (;;) {
      if (failed_.waitFor(received_.get(), POLLIN).reason == StopEvent::Reason::kFailed) {
        throw std::system_error(errno, std::generic_category(), "poll");
      }
      if (failure_.problem() != nullptr || ended_) return;
      signalfd_siginfo signal{};
      if (read(received_.get(), &signal, sizeof signal) != sizeof signal) continue;
      if (signal.ssi_signo == SIGUSR1) {
        service.removeCard();
      } else if (signal.ssi_signo == SIGUSR2) {
        service.insertCard();
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
  const StopEvent failed_;   // set by the first failure or `end`
  std::atomic<bool> ended_{false};
  FailureNote failure_;
};

void tellState(bool connected) {
  sd_notify(0, connected ? "STATUS=Connected to the driver" : "STATUS=Waiting for the driver");
}

OnFailure noteIn(Endings& endings) {
  return [&endings](const char* problem) { endings.failure().take(problem); };
}

// The card of the agent that has started this one. Only its frames may reach standard output, so
// everything else written there goes to standard error.
std::unique_ptr<CardBackend> makeRemoteCard(std::function<void()> onEnd, Log& log) {
  if (isatty(STDIN_FILENO) != 0) {
    throw std::runtime_error("--backend remote is for zelta-agent --to, which starts it over ssh");
  }
  ScopedFd output(checkedFd(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "fcntl"));
  ScopedFd input(checkedFd(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0), "fcntl"));
  dup2(STDERR_FILENO, STDOUT_FILENO);
  return std::make_unique<RemoteCard>(makeDescriptorLine(input.release(), output.release()),
                                      LineTimes{}, std::move(onEnd), log);
}

// A remote card's agent, which any user may be, does without a control socket if it has no place
// for one; others need theirs.
std::unique_ptr<ControlServer> openControl(const Options& options, const std::string& path,
                                           const std::string& link, Service& service, TraceHub& hub,
                                           const OnFailure& onFailure, Log& log) {
  try {
    return openControlServer(
        path, [&service](const std::string& line) { return answerControl(service, line); },
        onFailure, link,
        [&service, &hub](const std::string& line, std::function<void()> wake) {
          return hub.follow(line == kControlTraceSecrets, traceBegin(service.status()),
                            std::move(wake));
        });
  } catch (const std::runtime_error& error) {
    if (options.backend != BackendKind::kRemote || !options.control.empty()) throw;
    log.info(std::string("No control socket: ") + error.what());
    return nullptr;
  }
}

int runAtDriver(const Options& options, Endings& endings, Log& log) {
  const OnFailure onFailure = noteIn(endings);
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
  const std::unique_ptr<CardBackend> backend =
      options.backend == BackendKind::kRemote ? makeRemoteCard([&endings] { endings.end(); }, log)
                                              : makeBackend(options, log);
  Agent agent(*pipes, *backend, settings, log);
  const std::unique_ptr<ControlServer> control =
      openControl(options, path, controlLinkPath(platform::pipeRoot(), options.reader), agent, hub,
                  onFailure, log);
  agent.start();
  log.info(std::string("zelta-agent ") + kVersion + ": reader " + std::to_string(options.reader) +
           ", " + backend->name() + " card, session " + settings.sessionId + ", control " + path);
  AgentRun run(agent, onFailure);
  tellState(false);
  sd_notify(0, "READY=1");

  endings.follow(agent, log);
  sd_notify(0, "STOPPING=1");
  if (control != nullptr) control->removePath();
  return run.stop(endings.failure(), log);
}

int runNearEnd(const Options& options, Endings& endings, Log& log) {
  const OnFailure onFailure = noteIn(endings);
  Forwarder::Settings settings;
  settings.place = options.to->place();
  settings.reader = options.to->reader;
  settings.onFailure = onFailure;
  std::optional<CardRecorder> recorder;
  TraceHub hub;
  if (!options.recordFile.empty()) hub.alsoTell(recorder.emplace(options.recordFile, log));
  settings.trace = &hub;
  const std::unique_ptr<Dialer> dialer =
      makeSshDialer(sshCommand(options.ssh, *options.to, options.logLevel));
  const std::unique_ptr<CardBackend> backend = makeBackend(options, log);
  Forwarder forwarder(*dialer, *backend, settings, log);
  // Only on request: programs would take a socket at the default path for that of a reader's agent
  // here.
  const std::unique_ptr<ControlServer> control =
      options.control.empty()
          ? nullptr
          : openControl(options, options.control, "", forwarder, hub, onFailure, log);
  forwarder.start();
  log.info(std::string("zelta-agent ") + kVersion + ": " + backend->name() + " card for reader " +
           std::to_string(options.to->reader) + " on " + settings.place);
  AgentRun run(forwarder, onFailure);
  sd_notify(0, "READY=1");

  endings.follow(forwarder, log);
  sd_notify(0, "STOPPING=1");
  if (control != nullptr) control->removePath();
  return run.stop(endings.failure(), log);
}

}  // namespace

int runCommand(const Options& options) { return showControlAnswer(ask(options)); }

int runAgent(const Options& options, Log& log) {
  Endings endings;  // first: threads inherit the blocked signals
  return options.to ? runNearEnd(options, endings, log) : runAtDriver(options, endings, log);
}

void writeStandardError(std::string_view text) {
  const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  static_cast<void>(written);
}

}  // namespace zelta::agent
