// An agent with a card, for tests of the driver's side: opens both pipes of a reader and answers
// its commands on its own thread, as a card would or as the test says.
//
// Owned by the test. `connect`, `connectSilently`, `die` and the events are for one thread at a
// time; the card may be changed from any thread. Answers are made on the agent's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/support/pipes/pipe_client.h"
#include "tests/support/shared.h"

namespace zelta::test {

class CardAgent {
 public:
  // A received command.
  struct Command {
    AgentCommand code;
    Bytes apdu;  // of a transmit
  };
  // The answer's payload; empty is answered with length 0. None: the agent does not answer at all.
  using Answer = std::function<std::optional<Bytes>(const Command&)>;
  // The card's response to a command; may block.
  using Respond = std::function<Bytes(const Bytes& apdu)>;

  // T=0 and T=1.
  static Bytes usualAtr() { return {0x3B, 0x80, 0x80, 0x01, 0x01}; }
  // T=1 with TA(1) = 13, as the parser's examples have it.
  static Bytes atrOfT1() { return {0x3B, 0x95, 0x13, 0x81, 0x01, 0x80, 0x73, 0xFF, 0x01, 0x00}; }
  // Names no protocol: T=0, and the current protocol stays what was selected.
  static Bytes atrOfT0() { return {0x3B, 0x00}; }
  // What the card answers unless `respond` says otherwise: the command and 90 00.
  static Bytes responseTo(const Bytes& apdu);

  explicit CardAgent(std::uint32_t readerIndex = 0) : readerIndex_(readerIndex) {}
  ~CardAgent() { die(); }
  CardAgent(const CardAgent&) = delete;
  CardAgent& operator=(const CardAgent&) = delete;

  // Opens both pipes, the event pipe first if the system allows it, and begins to answer for the
  // card. Returns when the driver, in which a request must wait for a card, has asked for the card:
  // later changes are no part of that answer. False if the driver did not accept the agent. A card
  // that is in by then is not reported: the driver asks.
  bool connect();
  // Answers as the test says instead, and does not wait for the driver to ask.
  bool connect(Answer answer);
  // `connect` without waiting for the driver to ask.
  bool connectUnasked();
  // Opens the pipes without answering anything: the test reads and writes them itself.
  bool connectSilently();
  // Closes the pipes; returns when the agent's thread has ended.
  void die();

  // Move the card without a report.
  void setCardIn(Bytes atr = usualAtr()) { setAtr(std::move(atr)); }
  void setCardOut() { setAtr({}); }
  bool isCardIn() { return !state_.lock()->atr.empty(); }
  // Takes the card out and reports it.
  bool remove();
  void respond(Respond respond) { state_.lock()->respond = std::move(respond); }

  bool sendEvent(AgentEvent event) { return sendEvent(static_cast<std::uint32_t>(event)); }
  bool sendEvent(std::uint32_t code) { return events_.writeNumber(code); }
  bool sendSessionLogId(const std::string& id);

  PipeClient& events() { return events_; }
  // Only while the agent answers nothing itself.
  PipeClient& command() { return command_; }

  // How often a command came, over all connections.
  int commands(AgentCommand code);
  bool waitForCommands(AgentCommand code, int count);

 private:
  struct State {
    std::vector<AgentCommand> seen;
    int resetsAsked = 0;  // of the card
    Bytes atr;            // empty: no card is in
    Respond respond;
  };

  void serve(const Answer& answer);
  std::optional<Command> readCommand();
  bool writePayload(const Bytes& bytes);
  // The card's own answer.
  std::optional<Bytes> answer(const Command& command);
  void setAtr(Bytes atr) { state_.lock()->atr = std::move(atr); }

  const std::uint32_t readerIndex_;
  PipeClient events_;
  PipeClient command_;
  std::thread thread_;
  Shared<State> state_;
};

}  // namespace zelta::test
