// An agent with a card as a process of its own, for the tests of the module. Takes a command a line
// and answers each with a line, "ok" or "failed"; ends with its input.
//
//   connect       opens the pipes and serves the driver; done when that has asked for the card
//   mute          from now on transmits are not answered
//   transmits N   waits until so many have come
#include <iostream>
#include <limits>
#include <sstream>
#include <string>

#include "contract/wire.h"
#include "tests/doubles/agent/card_agent.h"

namespace zelta::test {
namespace {

class AgentProgram {
 public:
  AgentProgram() { agent_.setCardIn(CardAgent::atrOfT1()); }

  bool obey(std::istringstream command) {
    std::string verb;
    int count = 0;
    command >> verb >> count;
    if (verb == "connect") return agent_.connect();
    if (verb == "mute") return mute();
    if (verb == "transmits") {
      return agent_.waitForCommands(AgentCommand::kQueryTransmit, count);
    }
    return false;
  }

 private:
  bool mute() {
    agent_.ignore(AgentCommand::kQueryTransmit, std::numeric_limits<int>::max());
    return true;
  }

  CardAgent agent_;
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
