// Where the agent's card comes from: the one interface to an emulated, a real or a scripted card.
//
// A back end is made, started, used and stopped by its owner. Between `start` and `stop` it tells
// its listener of each insertion and removal, in turns, beginning with an insertion where a card is
// in at the start. `reset`, `atr` and `transmit` come one at a time, each on any thread and after
// the one before has returned, and may block for as long as the card takes; the other methods come
// from any thread, also meanwhile, and return within a moment.
//
// Order: a card answers from its announcement on, and a removal is announced before a call returns
// empty because of it. The listener returns within a moment and calls nothing of the back end.
#pragma once

#include <string>

#include "contract/bytes.h"

namespace zelta::agent {

class CardListener {
 public:
  virtual void cardInserted() = 0;
  virtual void cardRemoved() = 0;
  // A thread of the back end's has ended by an exception; the text is gone afterwards. Comes at
  // any time, and must not throw.
  virtual void cardFailed(const char* problem) = 0;

 protected:
  ~CardListener() = default;
};

class CardBackend {
 public:
  virtual ~CardBackend() = default;

  // What kind of card this is, for people: "emulated", "pcsc", "script".
  virtual std::string name() const = 0;

  // Throws std::runtime_error with a message for people where the card cannot be had at all. The
  // listener outlives `stop`.
  virtual void start(CardListener& listener) = 0;
  // No notification follows its return. Nothing but the destructor may be called afterwards.
  virtual void stop() = 0;

  // Resets the card, powering it where it was not; its ATR, or empty where no card is in or it does
  // not answer.
  virtual Bytes reset() = 0;
  // The ATR without a reset, except that a card without power is powered.
  virtual Bytes atr() = 0;
  // The card's response to a command APDU of any length and content; empty where no card is in or
  // it does not answer.
  virtual Bytes transmit(const Bytes& command) = 0;
  // The driver has chosen a protocol and uses the card from now on.
  virtual void ready() = 0;

  // Put a card in, pull it. They return when it is done; the text says why it was not, empty is
  // success. Doing what is done already fails.
  virtual std::string insert() = 0;
  virtual std::string remove() = 0;

  // Makes the call that is blocked in the card, and every later one, return as soon as the card
  // allows. Comes before `stop`.
  virtual void interrupt() = 0;
};

}  // namespace zelta::agent
