// An agent for tests of the driver's side: opens both pipes of a reader and answers its commands
// as it is told, on a thread of its own.
//
// Owned by the test. `connect`, `die` and the events are for one thread at a time; `answer` runs on
// the agent's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/sync/sync.h"
#include "tests/support/pipe_client.h"

namespace zelta::test {

class LinkAgent {
 public:
  // A command as it came.
  struct Command {
    AgentCommand code;
    Bytes apdu;  // of a transmit
  };
  // The answer's payload; empty is answered with length 0. None: the agent does not answer at all.
  using Answer = std::function<std::optional<Bytes>(const Command&)>;

  explicit LinkAgent(std::uint32_t readerIndex = 0) : readerIndex_(readerIndex) {}
  ~LinkAgent() { die(); }
  LinkAgent(const LinkAgent&) = delete;
  LinkAgent& operator=(const LinkAgent&) = delete;

  // Opens both pipes, the event pipe first where the system allows it, and answers from then on.
  // False where the driver did not take it.
  bool connect(Answer answer);
  // Opens the pipes without answering anything: the test reads and writes them itself.
  bool connectSilently();
  // The driver sees it gone; returns when its thread has ended.
  void die();
  // Waits until the driver has dropped the agent.
  bool waitForDrop() { return events_.waitForDrop(); }

  bool sendEvent(AgentEvent event) { return sendEvent(static_cast<std::uint32_t>(event)); }
  bool sendEvent(std::uint32_t code) { return events_.writeNumber(code); }
  bool sendSessionLogId(const std::string& id);

  PipeClient& events() { return events_; }
  // Only while the agent answers nothing itself.
  PipeClient& command() { return command_; }

  // How often a command came, of all connections.
  int commands(AgentCommand code);
  bool waitForCommands(AgentCommand code, int count);

 private:
  void serve(const Answer& answer);
  std::optional<Command> readCommand();
  bool writePayload(const Bytes& bytes);

  const std::uint32_t readerIndex_;
  PipeClient events_;
  PipeClient command_;
  std::thread thread_;
  platform::Mutex mutex_;
  platform::ConditionVariable came_;
  std::vector<AgentCommand> seen_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
