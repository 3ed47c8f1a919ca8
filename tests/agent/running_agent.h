// Runs an agent in the test's process, on its own thread, over the system's pipes or a double's;
// and helpers shared with the tests of its classes.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/program/agent.h"
#include "tests/support/collected.h"
#include "tests/support/shared.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

// A limit that does not run out in a test, even on a loaded machine.
inline constexpr std::chrono::milliseconds kLong{60000};
inline constexpr char kSession[] = "01234567-89ab-cdef-0123-456789abcdef";

// The `agent::OnFailure` of threads that must not fail in a test.
inline void failTest(const char* problem) { ADD_FAILURE() << problem; }

// The test's own folder for pipes, which exists while this object lives.
class PipeFolder {
 public:
  PipeFolder() : root_("ZELTA_PIPE_ROOT", folder_.file("p")) {}
  std::string file(const std::string& name) const { return folder_.file(name); }
  const std::filesystem::path& path() const { return folder_.path(); }

 private:
  TempFolder folder_;
  ScopedVariable root_;
};

// Lines of the agent's log, as "severity: text".
class LogLines {
 public:
  agent::Log::Sink sink();
  // Waits until a line contains `text`.
  void waitFor(const std::string& text) const;
  bool has(const std::string& text) const { return count(text) != 0; }
  std::size_t count(const std::string& text) const;

 private:
  Collected<std::string> lines_;
};

// Limits so long that none runs out.
agent::Timing patientTiming();

class RunningAgent {
 public:
  // `card` outlives this.
  explicit RunningAgent(
      agent::CardBackend& card, agent::Timing timing = patientTiming(),
      agent::OnFailure onFailure = failTest,
      std::unique_ptr<agent::PipeClientPort> pipes = agent::makeSystemPipeClient(),
      agent::TraceSink* trace = nullptr);
  ~RunningAgent() { stop(); }

  agent::Agent& agent() { return *agent_; }
  LogLines& log() { return lines_; }
  // Waits until the driver is known to have accepted a connection, or to be gone.
  void waitConnected(bool connected) {
    connected_.lock().wait([connected](bool now) { return now == connected; });
  }
  // Ends the agent and joins its thread.
  void stop();
  // Waits until the agent has ended by itself.
  void join() { thread_.join(); }

 private:
  LogLines lines_;
  agent::Log log_;
  std::unique_ptr<agent::PipeClientPort> pipes_;
  Shared<bool> connected_{false};
  std::unique_ptr<agent::Agent> agent_;
  std::thread thread_;
};

}  // namespace zelta::test
