// Forwards the card in a real reader, through the PC/SC service.
//
// A separate thread follows insertion and removal. The card is shared with other programs, which
// have to coordinate their use of it themselves.
#pragma once

#include <string>
#include <thread>

#include "agent/card/card_backend.h"
#include "agent/platform/pcsc_api.h"
#include "agent/program/log.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class PcscCard final : public CardBackend {
 public:
  // `log` outlives the card.
  PcscCard(const std::string& readerName, Log& log);
  ~PcscCard() override;

  std::string name() const override { return "pcsc"; }
  // Fails if the service is not there, unless it comes with the reader; a missing reader is logged
  // and waited for.
  void start(CardListener& listener) override;
  void stop() override;
  Bytes reset() override;
  Bytes atr() override;
  Bytes transmit(const Bytes& command) override;
  void ready() override {}
  std::string insert() override;
  std::string remove() override;
  void interrupt() override;

 private:
  // True if there is a handle on the card now. Used by `reset`, `atr` and `transmit`, which come
  // one at a time, and by `stop` after them.
  [[nodiscard]] bool connect();
  Bytes readAtr();
  struct Response {
    LONG result;
    Bytes bytes;  // empty unless the result is success
  };
  Response transmitOnce(const Bytes& command);
  LONG openContext();
  void closeContext();
  void dropHandle();
  // Logs it, and takes the card as gone if `result` says so.
  void noteFailure(LONG result, const char* what);

  // The body of the watching thread.
  void runWatcher();
  void watch();
  // Follows the reader until the service ends or this does.
  void follow(SCARDCONTEXT context);
  LONG waitForChange(SCARDCONTEXT context, SCARD_READERSTATE* states, DWORD count, DWORD limit);
  bool isEnding();
  void takeState(DWORD state);
  void setPresent(bool present);

  const ReaderName reader_;
  const std::string missing_;  // log line if there is no such reader
  Log& log_;
  CardListener* listener_ = nullptr;  // non-owning; from start to stop

  // Without a lock: the card's calls come one after the other. The service does not mind from which
  // thread.
  SCARDCONTEXT context_ = 0;  // 0: none
  SCARDHANDLE handle_ = 0;
  bool hasHandle_ = false;
  DWORD protocol_ = 0;
  Bytes received_;  // room for the longest response

  platform::Mutex mutex_;  // also held around the listener's calls, so that they alternate
  platform::ConditionVariable changed_;
  bool present_ ZELTA_GUARDED_BY(mutex_) = false;
  bool ending_ ZELTA_GUARDED_BY(mutex_) = false;
  bool following_ ZELTA_GUARDED_BY(mutex_) = false;  // a context may be cancelled
  SCARDCONTEXT followContext_ ZELTA_GUARDED_BY(mutex_) = 0;
  bool watcherEnded_ ZELTA_GUARDED_BY(mutex_) = false;
  DWORD lastState_ = 0;  // the watching thread's
  std::thread watcher_;
};

}  // namespace zelta::agent
