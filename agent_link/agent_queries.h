// What a reader asks its agent on the command pipe. A query is one exchange, guarded by a watchdog
// that ends it when its time is up; a notification is one write without a limit.
// The pipe is not resynchronised after a query that the agent leaves unanswered: a late answer
// would be read as the beginning of the next one. So an agent must never send one.
//
// Exchanges take turns. A query waits for its turn for at most its limit, then gives up without
// touching the pipe; once it has its turn, it has its whole limit. No query's limit cuts another
// exchange short, because the stream could not be followed afterwards. Only a notification is ended
// by a query that has waited for it in vain.
//
// Ownership: the reader's. Pipe and reader outlive it.
// Threads: any. Failures are logged; the caller learns only success, failure or time-out.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "agent_link/cancelable_pipe.h"
#include "agent_link/exchange_turn.h"
#include "agent_link/pipe_stream.h"
#include "agent_link/watchdog_thread.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"
#include "reader/reader.h"

namespace zelta {

class AgentQueries {
 public:
  // `limit` is how long a query may take. Of the reader, only the state is looked at.
  AgentQueries(CancelablePipe& pipe, const Reader& reader, std::chrono::milliseconds limit);

  // A query's turn, taken before the query itself by a caller that takes a lock in between. Waits
  // as the query would. Given up on destruction.
  class Turn {
   public:
    explicit Turn(AgentQueries& queries);

   private:
    friend class AgentQueries;
    std::optional<ExchangeTurn::Holder> holder_;  // none if it was waited for in vain
  };

  [[nodiscard]] QueryResult transmit(const Bytes& command, ResponseBuffer& response);
  [[nodiscard]] QueryResult queryAtr(Bytes& atr, bool reset);
  [[nodiscard]] QueryResult queryAtr(Bytes& atr, bool reset, const Turn& turn);
  [[nodiscard]] QueryResult checkAtr();
  // True when it was sent.
  [[nodiscard]] bool notifyCardReady();

 private:
  class Notification;
  enum class NotificationState { kNone, kUnderWay, kCancelled };
  // A query's name in the log, and whether the log has a line for its time-out.
  struct Name {
    const char* text;
    bool logsTimeout;
  };

  // Looked at before the turn is taken: without a pipe there is nothing to wait for.
  [[nodiscard]] bool hasPipe(const char* tag) const;
  template <typename Exchange>
  [[nodiscard]] QueryResult runGuarded(const Name& name, const Turn& turn, Exchange exchange);
  static QueryResult timedOut(const Name& name);
  // Ends what is under way on the pipe.
  void cancel();
  // Ends a notification, once for all who wait for it; false if what is under way is none.
  [[nodiscard]] bool cancelNotification() ZELTA_EXCLUDES(notificationMutex_);
  [[nodiscard]] bool askTransmit(PipeStream& stream, const Bytes& command,
                                 ResponseBuffer& response);

  CancelablePipe& pipe_;
  const Reader& reader_;
  const std::chrono::milliseconds limit_;
  ExchangeTurn turn_;
  WatchdogThread watchdogThread_;
  // Held while a notification is cancelled, so that it keeps its turn until that is done.
  platform::Mutex notificationMutex_ ZELTA_ACQUIRED_BEFORE(pipe_.mutex());
  NotificationState notification_ ZELTA_GUARDED_BY(notificationMutex_) = NotificationState::kNone;
};

}  // namespace zelta
