// A reader on pipes that follow the test.
#pragma once

#include <string>
#include <vector>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/scripted_pipes.h"

namespace zelta::test {

class ScriptedLink : public LinkTest {
 protected:
  ~ScriptedLink() override { stop(); }

  // Returns when both pipes have been created.
  PipeReader& startCreated(const AgentLinkTimes& times = {});
  // Returns when the command pipe's client has been accepted, without an exchange. The server
  // thread then waits for the event pipe's client.
  PipeReader& startAccepted(const AgentLinkTimes& times = {});

  // The calls since `forgetCalls` that concern a pipe's client, as "write command 02000000",
  // "flush command", "read event 4", "connect event", "cancel command", "disconnect event".
  std::vector<std::string> trace() const;
  void forgetCalls() { forgotten_ = pipes_.calls().size(); }

  // Set the agent's bytes, and which of the driver's calls fail. Calls count from the reader's
  // start.
  void agentAnswers(const Bytes& bytes) { pipes_.feed(commandPipeName(0), bytes); }
  void agentReports(const Bytes& bytes) { pipes_.feed(eventPipeName(0), bytes); }

  static std::string createdText(bool command);

  ScriptedPipes pipes_;
  ScopedPipes scoped_{pipes_};

 private:
  std::size_t forgotten_ = 0;
};

}  // namespace zelta::test
