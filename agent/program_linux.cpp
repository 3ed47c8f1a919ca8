// The program: command line, signals, control socket and readiness around the agent.
#include <pthread.h>
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "agent/agent.h"
#include "agent/backend_choice.h"
#include "agent/control.h"
#include "agent/control_socket.h"
#include "agent/log_linux.h"
#include "agent/options.h"
#include "agent/session_id.h"
#include "agent/version.h"

namespace zelta::agent {

namespace {

// How long a card that cannot be interrupted may hold up the end.
constexpr std::chrono::seconds kEndLimit{2};

// The signals that the program waits for; blocked in every thread.
sigset_t waitedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&signals, signal);
  return signals;
}

int runControl(const Options& options) {
  const std::vector<std::string> paths = options.control.empty()
                                             ? defaultControlPaths(options.reader)
                                             : std::vector<std::string>{options.control};
  const ControlResult result = readControlAnswer(askAgent(paths, controlLine(options)));
  if (result.success) {
    std::cout << result.text;
    return kExitDone;
  }
  std::cerr << "zelta-agent: " << result.text;
  return kExitFailed;
}

// Acts on signals until one of them ends the program.
void followSignals(const sigset_t& signals, Agent& agent, Log& log) {
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGUSR1) {
      agent.removeCard();
    } else if (signal == SIGUSR2) {
      agent.insertCard();
    } else {
      log.info(signal == SIGINT ? "Ending: interrupted" : "Ending: asked to terminate");
      return;
    }
  }
}

void tellState(bool connected) {
  sd_notify(0, connected ? "STATUS=Connected to the driver" : "STATUS=Waiting for the driver");
}

int runAgent(const Options& options, Log& log) {
  const sigset_t signals = waitedSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const std::string path =
      options.control.empty() ? defaultControlPaths(options.reader).front() : options.control;
  Agent::Settings settings;
  settings.reader = options.reader;
  settings.sessionId = options.sessionId.empty() ? newSessionId() : options.sessionId;
  settings.onConnection = tellState;

  const std::unique_ptr<PipeClientPort> pipes = makeSystemPipeClient();
  const std::unique_ptr<CardBackend> backend = makeBackend(options, log);
  Agent agent(*pipes, *backend, settings, log);
  const std::unique_ptr<ControlServer> control = openControlServer(
      path, [&agent](const std::string& line) { return answerControl(agent, line); });
  agent.start();
  log.info(std::string("zelta-agent ") + kVersion + ": reader " + std::to_string(options.reader) +
           ", " + backend->name() + " card, session " + settings.sessionId + ", control " + path);
  std::future<void> ran = std::async(std::launch::async, [&agent] { agent.run(); });
  tellState(false);
  sd_notify(0, "READY=1");

  followSignals(signals, agent, log);
  sd_notify(0, "STOPPING=1");
  control->removePath();
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
    if (options.action != Options::Action::Run) return runControl(options);
    if (options.pin) {
      log.warning("The PIN stands on the command line, where others can read it; use --pin-file");
    }
    return runAgent(options, log);
  } catch (const std::exception& error) {
    if (options.action != Options::Action::Run) {
      std::cerr << "zelta-agent: " << error.what() << "\n";
    } else {
      log.error(error.what());
    }
    return kExitFailed;
  }
}

}  // namespace zelta::agent
