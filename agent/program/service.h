// The service that the program runs until it is ended.
#pragma once

#include <cstdint>
#include <string>

#include "agent/card/card_slot.h"
#include "contract/bytes.h"

namespace zelta::agent {

class Service {
 public:
  struct Status {
    // The driver has accepted a connection, or the agent at the driver has said hello.
    bool connected = false;
    std::uint32_t reader = 0;
    std::string sessionId;
    std::string backend;
    bool cardIn = false;
    Bytes atr;  // empty if the card has not been asked yet
    // Since the start:
    std::uint64_t apdus = 0;     // sent to the card
    std::uint64_t errors = 0;    // commands that the card left unanswered
    std::uint64_t timeouts = 0;  // commands answered in its place because it was late
    std::uint64_t reconnects = 0;

    // `connections`: the number so far.
    void setCard(const CardSlot::Status& card, std::uint64_t connections) {
      cardIn = card.card != kNoCard;
      atr = card.atr;
      apdus = card.apdus;
      errors = card.unanswered;
      reconnects = connections == 0 ? 0 : connections - 1;
    }
  };

  Service() = default;
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  virtual ~Service() = default;

  // Serves until `stop`. May throw, for example for lack of memory; the service may be destroyed
  // then, nothing else.
  virtual void run() = 0;
  // Ends `run`, now or as soon as it is called. Any thread.
  virtual void stop() = 0;

  // Any thread, while `run` serves. The text says why not; empty is success.
  virtual std::string insertCard() = 0;
  virtual std::string removeCard() = 0;
  virtual Status status() const = 0;
};

}  // namespace zelta::agent
