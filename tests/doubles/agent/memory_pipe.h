// A client end of a pipe without a buffer and without a driver: the test plays the driver, and
// reads writes at once or later.
//
// Any thread may call.
#pragma once

#include <functional>
#include <limits>
#include <optional>
#include <vector>

#include "agent/link/pipe_client_port.h"
#include "contract/bytes.h"
#include "tests/support/shared.h"

namespace zelta::test {

class MemoryPipe : public agent::PipeConnection {
 public:
  // Appends bytes for the agent to read.
  void give(const Bytes& bytes);
  // Each write of the agent, in order; waits until there are `count`.
  std::vector<Bytes> takeWrites(std::size_t count);
  std::size_t writes() { return state_.lock()->written.size(); }
  // After this call the driver reads nothing until `letWrites`; a flush blocks as well.
  void holdWrites() { state_.lock()->held = true; }
  void letWrites() { state_.lock()->held = false; }
  // Takes nothing at once that often; by default never again, as on Windows.
  void refuseTries(std::size_t times = std::numeric_limits<std::size_t>::max()) {
    state_.lock()->refusedTries = times;
  }
  // Blocks until a write is waiting.
  void waitUntilWriting() { state_.lock().wait(&State::writing); }

  agent::IoResult awaitCommand() override;
  agent::IoResult read(void* data, std::uint32_t size,
                       std::optional<agent::SteadyClock::time_point> deadline) override;
  agent::IoResult answer(const Bytes& bytes, agent::SteadyClock::time_point deadline) override;
  agent::IoResult post(const void* data, std::uint32_t size,
                       std::optional<agent::SteadyClock::time_point> deadline) override;
  bool tryPost(const void* data, std::uint32_t size) override;
  agent::IoResult flush() override;
  void cancel() override { state_.lock()->cancelled = true; }

 private:
  struct State {
    Bytes given;
    std::vector<Bytes> written;
    bool held = false;
    bool writing = false;
    std::size_t refusedTries = 0;
    bool cancelled = false;
  };

  // Bytes given meanwhile end the wait if it is an answer. A write that times out is not done.
  agent::IoResult write(Bytes bytes, std::optional<agent::SteadyClock::time_point> deadline,
                        bool isAnswer);

  // Whether `ready` became true before the deadline, if there is one.
  static bool waitUntil(Shared<State>::Access& state,
                        std::optional<agent::SteadyClock::time_point> deadline,
                        const std::function<bool(const State&)>& ready);

  Shared<State> state_;
};

}  // namespace zelta::test
