// A reader's queries to its agent on the command pipe. A query is one exchange, guarded by a
// watchdog that ends it when its time is up; a notification is one write without a limit.
// The pipe is not resynchronised after a query that the agent leaves unanswered: a late answer
// would be read as the beginning of the next one. So an agent must never send one.
//
// Exchanges take turns. A query waits for its turn for at most its limit, then gives up without
// touching the pipe; once it has its turn, it has its whole limit. No query's limit cuts another
// exchange short, because the stream could not be followed afterwards. Only a notification is ended
// by a query that has waited its whole limit.
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
  // `limit` is the longest time of a query. Only the reader's state is used.
  AgentQueries(CancelablePipe& pipe, const Reader& reader, std::chrono::milliseconds limit);

  // A query's turn, for a caller that takes a lock between the turn and the query. Waits as the
  // query would. Given up on destruction.
  class Turn {
   public:
    explicit Turn(AgentQueries& queries);

   private:
    friend class AgentQueries;
    std::optional<ExchangeTurn::Holder> holder_;  // none if the wait for it timed out
  };

  [[nodiscard]] QueryResult transmit(const Bytes& command, ResponseBuffer& response);
  [[nodiscard]] QueryResult queryAtr(Bytes& atr, bool reset);
  [[nodiscard]] QueryResult queryAtr(Bytes& atr, bool reset, const Turn& turn);
  [[nodiscard]] QueryResult checkAtr();
  // True if it was sent.
  [[nodiscard]] bool notifyCardReady();

 private:
  class Notification;
  enum class NotificationState { kNone, kUnderWay, kCancelled };
  // A query's name in the log, and whether the log has a line for its time-out.
  struct Name {
    const char* text;
    bool logsTimeout;
  };

  // Checked before the turn is taken: without a pipe there is nothing to wait for.
  [[nodiscard]] bool hasPipe(const char* tag) const;
  template <typename Exchange>
  [[nodiscard]] QueryResult runGuarded(const Name& name, const Turn& turn, Exchange exchange);
  static QueryResult timedOut(const Name& name);
  // Ends the current exchange.
  void cancel();
  // Ends the current exchange if it is a notification, once for all waiting threads; else false.
  [[nodiscard]] bool cancelNotification() ZELTA_EXCLUDES(notificationMutex_);
  [[nodiscard]] bool askTransmit(PipeStream& stream, const Bytes& command,
                                 ResponseBuffer& response);

  CancelablePipe& pipe_;
  const Reader& reader_;
  const std::chrono::milliseconds limit_;
  ExchangeTurn turn_;
  WatchdogThread watchdogThread_;
  // Held while a notification is cancelled, so that it keeps its turn until then.
  platform::Mutex notificationMutex_ ZELTA_ACQUIRED_BEFORE(pipe_.mutex());
  NotificationState notification_ ZELTA_GUARDED_BY(notificationMutex_) = NotificationState::kNone;
};

}  // namespace zelta
