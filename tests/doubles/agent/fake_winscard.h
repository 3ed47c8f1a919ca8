// The PC/SC service, for tests: one reader, one card, one process. Takes the place of the client
// library at link time.
//
// Any thread may call. A wait for changes blocks as the real one does, until the state is another
// than the caller knows, or it is cancelled.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "agent/platform/pcsc_api.h"
#include "platform/sync/sync.h"

namespace zelta::test {

inline constexpr char kFakeReader[] = "Fake Reader 00 00";

class FakeWinscard {
 public:
  // The one that the SCard functions act on while it lives.
  FakeWinscard();
  ~FakeWinscard();
  FakeWinscard(const FakeWinscard&) = delete;
  FakeWinscard& operator=(const FakeWinscard&) = delete;

  void setService(bool up);
  void setReader(bool there);
  // A wait for a reader that is not there succeeds with a state that says so, and a reader with
  // that state is not looked at any more, as on Windows. Otherwise the wait fails.
  void tellUnknownReaderByItsState();
  void insertCard();
  void removeCard();
  // Another card in one step, as when the watcher was not looking.
  void swapCard();
  // The card goes, and only commands find out; `insertCard` or `removeCard` tells the watcher.
  void loseCard();
  // Results of the next transmits, in order; afterwards success.
  void failTransmits(std::vector<LONG> results);
  // Calls in the order in which they came: "connect", "reset", "leave", "disconnect", "transmit".
  std::vector<std::string> takeCalls();
  std::size_t contexts();
  // Until a thread waits for changes.
  void waitUntilWatched();

  // The service's side.
  LONG establish(LPSCARDCONTEXT context);
  LONG release(SCARDCONTEXT context);
  LONG cancel();
  LONG getStatusChange(DWORD limit, SCARD_READERSTATE* states, DWORD count);
  LONG connect(const agent::ReaderName& reader, SCARDHANDLE* handle, DWORD* protocol);
  LONG reconnect(DWORD initialization, DWORD* protocol);
  LONG disconnect();
  LONG status(BYTE* atr, DWORD* length);
  LONG transmit(const BYTE* command, DWORD size, BYTE* response, DWORD* length);

 private:
  DWORD stateLocked() const ZELTA_REQUIRES(mutex_);
  LONG unknownReader(SCARD_READERSTATE& state) const ZELTA_REQUIRES(mutex_);
  LONG cardResult() const ZELTA_REQUIRES(mutex_);
  void changeCard(bool in) ZELTA_REQUIRES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool up_ ZELTA_GUARDED_BY(mutex_) = true;
  bool reader_ ZELTA_GUARDED_BY(mutex_) = true;
  bool tellsByState_ ZELTA_GUARDED_BY(mutex_) = false;
  bool card_ ZELTA_GUARDED_BY(mutex_) = false;  // as the watcher sees it
  bool lost_ ZELTA_GUARDED_BY(mutex_) = false;
  DWORD changes_ ZELTA_GUARDED_BY(mutex_) = 0;
  DWORD readerChanges_ ZELTA_GUARDED_BY(mutex_) = 1;
  bool watched_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
  std::size_t contexts_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::deque<LONG> transmitResults_ ZELTA_GUARDED_BY(mutex_);
  std::vector<std::string> calls_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
