// A card of your own for the virtual reader: derive from Card and serve it.
//
//   class MyCard : public zelta::Card { ... };
//   int main() { MyCard card; zelta::serve(card); }
//
// Link with what `pkg-config --libs zelta-agent` says. docs/own-cards.md has an example.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zelta {

using Bytes = std::vector<std::uint8_t>;

struct ServeOptions {
  std::uint32_t reader = 0;  // the reader's index
  std::string sessionId;     // for the driver's log; empty: a fresh one
  // Gets a line of the agent's log, one call at a time, on any thread; must not throw. It sees the
  // headers of commands, not their data. Empty: no log.
  std::function<void(const std::string& line)> log;
};

// The card. It is served at most once, and outlives `serve`.
class Card {
 public:
  virtual ~Card();
  Card(const Card&) = delete;
  Card& operator=(const Card&) = delete;

  // Called one at a time, on threads of the agent, while the card is in. They may take as long as
  // they like: after 4.5 seconds the agent answers the driver without the card (an ATR query as if
  // no card was in, a command with 6F 00) and discards the card's late answer. An exception from
  // them ends `serve`.

  // The answer to reset, 3B or 3F first, at most 33 bytes; empty if the card is mute.
  virtual Bytes atr() = 0;
  // The response to a command APDU of any length and content, with the status word last.
  virtual Bytes transmit(const Bytes& command) = 0;
  // The card is reset, or gets power; `atr` is asked for next.
  virtual void reset() {}
  // A protocol has been chosen: somebody starts to use the card. On any thread, also while the card
  // works.
  virtual void ready() {}
  // The agent ends: make the call that is in the card return soon. On any thread.
  virtual void interrupt() {}

  // These may be called from any thread, before and while the card is served; not by the methods
  // above.

  // Put the card in, or pull it. False if it was so already. If the card is pulled during a
  // command, its answer is discarded.
  bool insert();
  bool remove();
  // Ends `serve`, now or as soon as it is called.
  void stop();

 protected:
  explicit Card(bool isIn = true);

 private:
  friend void serve(Card& card, const ServeOptions& options);
  class Slot;
  class Serving;
  std::unique_ptr<Slot> slot_;
};

// Connects to the reader's driver whenever that is there, and serves until `stop`. Throws
// std::runtime_error if the card throws, or if there is no more memory, file descriptor or thread.
void serve(Card& card, const ServeOptions& options = {});

}  // namespace zelta
