// The PC/SC service, for tests: one reader, one card, one process. Takes the place of the client
// library at link time.
//
// Any thread may call. A wait for changes blocks like the real one, until the state differs from
// the caller's, or it is cancelled.
#pragma once

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "agent/platform/pcsc_api.h"
#include "tests/support/shared.h"

namespace zelta::test {

inline constexpr char kFakeReader[] = "Fake Reader 00 00";

class FakeWinscard {
 public:
  struct State {
    bool up = true;
    bool reader = true;
    bool tellsByState = false;
    bool card = false;  // as the watcher sees it
    bool lost = false;
    DWORD changes = 0;
    DWORD readerChanges = 1;
    bool watched = false;
    bool cancelled = false;
    std::size_t contexts = 0;
    std::deque<LONG> transmitResults;
    std::vector<std::string> calls;
  };

  // While this object lives, the SCard functions act on it.
  FakeWinscard();
  ~FakeWinscard();
  FakeWinscard(const FakeWinscard&) = delete;
  FakeWinscard& operator=(const FakeWinscard&) = delete;

  void setService(bool up) { lock()->up = up; }
  void setReader(bool there);
  // A wait for a missing reader succeeds with a state that says so, and a reader with that state is
  // then ignored, as on Windows. Otherwise the wait fails.
  void tellUnknownReaderByItsState() { lock()->tellsByState = true; }
  void insertCard() { changeCard(true, 1); }
  void removeCard() { changeCard(false, 1); }
  // Swaps the card in one step, as if the watcher had missed it.
  void swapCard() { changeCard(true, 2); }
  // Removes the card so that only commands notice; `insertCard` or `removeCard` tells the watcher.
  void loseCard() { lock()->lost = true; }
  // Results of the next transmits, in order; afterwards success. The answer is in the caller's
  // buffer in any case.
  void failTransmits(std::deque<LONG> results) { lock()->transmitResults = std::move(results); }
  // Calls in the order in which they came: "connect", "reset", "leave", "disconnect", "transmit".
  std::vector<std::string> takeCalls() { return std::exchange(lock()->calls, {}); }
  std::size_t contexts() { return lock()->contexts; }
  // Blocks until a thread waits for changes.
  void waitUntilWatched() { lock().wait(&State::watched); }

  // For the SCard functions.
  Shared<State>::Access lock() { return state_.lock(); }

 private:
  void changeCard(bool in, DWORD changes);

  Shared<State> state_;
};

}  // namespace zelta::test
