// The agent's card: the one interface to an emulated, a real or a scripted card.
//
// A back end is made, started, used and stopped by its owner. Between `start` and `stop` it tells
// its listener of each insertion and removal, in turns, beginning with an insertion if a card is in
// at the start. `reset`, `atr` and `transmit` come one at a time, each on any thread and after
// the one before has returned, and may block for as long as the card takes. The other methods may
// be called from any thread at any time and return within a moment.
//
// Order: a card answers by the time it is announced, and a removal is announced before a call
// returns empty because of it. The listener returns within a moment and calls nothing of the back
// end.
#pragma once

#include <string>

#include "contract/bytes.h"

namespace zelta::agent {

class CardListener {
 public:
  virtual void cardInserted() = 0;
  virtual void cardRemoved() = 0;
  // A thread of the back end has ended by an exception with this text, which is valid during the
  // call only. May be called at any time; must not throw.
  virtual void cardFailed(const char* problem) = 0;

 protected:
  ~CardListener() = default;
};

class CardBackend {
 public:
  virtual ~CardBackend() = default;

  // What kind of card this is, for people: "emulated", "pcsc", "script".
  virtual std::string name() const = 0;

  // Throws std::runtime_error with a message for people if there can be no card at all. The
  // listener outlives `stop`.
  virtual void start(CardListener& listener) = 0;
  // No notification comes after it has returned. Nothing but the destructor may be called
  // afterwards.
  virtual void stop() = 0;

  // Resets the card, and powers it first if it has no power. Its ATR, or empty if no card is in or
  // it does not answer.
  virtual Bytes reset() = 0;
  // The ATR without a reset; a card without power is powered.
  virtual Bytes atr() = 0;
  // The card's response to a command APDU of any length and content; empty if no card is in or
  // it does not answer.
  virtual Bytes transmit(const Bytes& command) = 0;
  // The driver has chosen a protocol and starts to use the card.
  virtual void ready() = 0;

  // Put the card in and pull it. They return when that is done. The text says why it could not be
  // done, for example because the card is in already; empty is success.
  virtual std::string insert() = 0;
  virtual std::string remove() = 0;

  // Makes the call that is blocked in the card, and every later one, return as soon as the card
  // allows. Comes before `stop`.
  virtual void interrupt() = 0;
};

}  // namespace zelta::agent
