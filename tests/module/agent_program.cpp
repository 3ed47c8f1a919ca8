// An agent with a card as a process of its own, for the tests of the module. Takes a command a line
// and answers each with a line, "ok" or "failed"; ends with its input.
//
//   connect       opens the pipes and serves the driver; done when that has asked for the card
//   card in|out   moves the card without a report
//   insert        moves the card and reports it
//   remove        the same
//   session ID    reports the session
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
  bool obey(std::istringstream command) {
    std::string verb;
    std::string object;
    command >> verb >> object;
    if (verb == "connect") return connect();
    if (verb == "card") return move(object == "in");
    if (verb == "insert") return move(true) && agent_.sendEvent(AgentEvent::kCardInserted);
    if (verb == "remove") return move(false) && agent_.sendEvent(AgentEvent::kCardRemoved);
    if (verb == "session") return agent_.sendSessionLogId(object);
    if (verb == "mute") return mute_ = true;
    if (verb == "transmits") {
      return agent_.waitForCommands(AgentCommand::kQueryTransmit, std::stoi(object));
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

  bool move(bool in) {
    if (in) {
      card_.insert();
    } else {
      card_.pull();
    }
    return true;
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
