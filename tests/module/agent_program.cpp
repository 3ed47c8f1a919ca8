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
  bool obey(std::istringstream command) {
    std::string verb;
    std::string object;
    command >> verb >> object;
    if (verb == "connect") return agent_.connect();
    if (verb == "card") return moveCard(object == "in");
    if (verb == "insert") return agent_.insert(CardAgent::atrOfT1());
    if (verb == "remove") return agent_.remove();
    if (verb == "session") return agent_.sendSessionLogId(object);
    if (verb == "mute") return mute();
    if (verb == "transmits") {
      return agent_.waitForCommands(AgentCommand::kQueryTransmit, std::stoi(object));
    }
    return false;
  }

 private:
  bool moveCard(bool in) {
    if (in) {
      agent_.setCardIn(CardAgent::atrOfT1());
    } else {
      agent_.setCardOut();
    }
    return true;
  }

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
