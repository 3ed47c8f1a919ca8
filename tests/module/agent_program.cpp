// An agent with a card as a process of its own, for the tests of the module. Takes a command a line
// and answers each with a line, "ok" or "failed"; ends with its input.
//
//   connect       opens the pipes and serves the driver; done when that has asked for the card
//   mute          from now on transmits are not answered
//   transmits N   waits until so many have come
#include <atomic>
#include <iostream>
#include <sstream>
#include <string>

#include "contract/wire.h"
#include "tests/module/test_card.h"

namespace zelta::test {
namespace {

class AgentProgram {
 public:
  AgentProgram() { card_.insert(); }

  bool obey(std::istringstream command) {
    std::string verb;
    int count = 0;
    command >> verb >> count;
    if (verb == "connect") return connect();
    if (verb == "mute") return mute_ = true;
    if (verb == "transmits") {
      return agent_.waitForCommands(AgentCommand::kQueryTransmit, count);
    }
    return false;
  }

 private:
  bool connect() {
    const int asked = agent_.commands(AgentCommand::kQueryAtrReset);
    const auto answer = [this, answers = card_.answers()](
                            const LinkAgent::Command& command) -> std::optional<Bytes> {
      if (mute_ && command.code == AgentCommand::kQueryTransmit) return std::nullopt;
      return answers(command);
    };
    return agent_.connect(answer) &&
           agent_.waitForCommands(AgentCommand::kQueryAtrReset, asked + 1);
  }

  std::atomic<bool> mute_{false};
  TestCard card_;
  LinkAgent agent_;
};

}  // namespace
}  // namespace zelta::test

int main() {
  zelta::test::AgentProgram agent;
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << (agent.obey(std::istringstream(line)) ? "ok" : "failed") << std::endl;
  }
  return 0;
}
