// An agent with a card that does as the test says, on the driver's pipes.
//
// Owned by the test. Any thread may change the card; `connect` and `die` are for one thread at a
// time.
#pragma once

#include <functional>
#include <vector>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/sync/sync.h"
#include "tests/doubles/agent/link_agent.h"

namespace zelta::test {

class CardAgent {
 public:
  // A command's answer, made on the agent's thread; may block.
  using Respond = std::function<Bytes(const Bytes& apdu)>;

  // T=0 and T=1.
  static Bytes usualAtr() { return {0x3B, 0x80, 0x80, 0x01, 0x01}; }

  // Waits for the driver's pipes, and until the driver, on which somebody waits for a card, has
  // taken both and asked for the card: what changes afterwards is no part of that answer. A card
  // that is in by then is not reported: the driver asks.
  bool connect();
  void die() { link_.die(); }

  // With the report to the driver, where it is connected.
  void insert(Bytes atr = usualAtr());
  void remove();
  // One card for another, both reports in a row.
  void swap(Bytes atr = usualAtr());
  // Before `connect`: the card is in from the start.
  void setCardIn(Bytes atr = usualAtr());

  // Default: the command itself and 90 00.
  void respond(Respond respond);
  // The next reset queries, after `skip` good ones, are answered with length 0.
  void failResets(int count, int skip = 0);

  // The next commands of this code are left without any answer.
  void ignore(AgentCommand code, int count);

  LinkAgent& link() { return link_; }

 private:
  std::optional<Bytes> answer(const LinkAgent::Command& command);
  bool resetFails() ZELTA_REQUIRES(mutex_);
  bool isIgnored(AgentCommand code) ZELTA_REQUIRES(mutex_);
  void setAtr(Bytes atr) ZELTA_EXCLUDES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool askedForCard_ ZELTA_GUARDED_BY(mutex_) = false;  // since the latest `connect`
  Bytes atr_ ZELTA_GUARDED_BY(mutex_);                  // empty: no card is in
  Respond respond_ ZELTA_GUARDED_BY(mutex_);
  int resetsToSkip_ ZELTA_GUARDED_BY(mutex_) = 0;
  int resetsToFail_ ZELTA_GUARDED_BY(mutex_) = 0;
  AgentCommand ignored_ ZELTA_GUARDED_BY(mutex_) = AgentCommand::kQueryTransmit;
  int toIgnore_ ZELTA_GUARDED_BY(mutex_) = 0;
  LinkAgent link_;
};

}  // namespace zelta::test
