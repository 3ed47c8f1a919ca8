// The server thread of a reader: creates the pipes, then repeatedly waits for an insertion request,
// accepts the agent and listens to its events.
//
// The thread ends when the reader is destroyed, if the pipes cannot be created, and, deliberately,
// if nobody has waited for a card for ten seconds after its start or after the loss of an agent. It
// is not started again; `result` says that it has ended.
//
// Ownership: the reader's; pipes, waiting requests and handler outlive it. `requestStop`, then the
// end of the calls on the pipes, then `join` come before its destruction, in this order.
// Threads: `serve` is the server thread's; the others are for any. docs/threads.md has the locks'
// order.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "agent_link/agent_event_handler.h"
#include "agent_link/agent_link_times.h"
#include "agent_link/pipe_pair.h"
#include "agent_link/pipe_stream.h"
#include "platform/process/error.h"
#include "platform/sync/sync.h"
#include "reader/waiting_requests.h"

namespace zelta {

class EventListener {
 public:
  // Starts the thread. Throws std::system_error if it cannot be started.
  EventListener(PipePair& pipes, WaitingRequests& waiting, AgentEventHandler& handler,
                const AgentLinkTimes& times);
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;

  // The thread's body: 0 if it was told to stop, the error of a failed creation of the pipes, or
  // `ERROR_INVALID_STATE` (5023) if nobody waited for a card.
  [[nodiscard]] std::uint32_t serve();
  // `ERROR_IO_PENDING` (997) until the pipes are created, 0 while the thread serves, then its exit
  // code (`ERROR_GEN_FAILURE`, 31, for an exception). If it is 0, an insertion request that waited
  // before the call is served.
  std::uint32_t result() ZELTA_EXCLUDES(waiting_.mutex());

  void requestStop();
  void join() { thread_.join(); }

 private:
  enum class Awaited { kRequest, kNobody, kStop };

  void run();
  void endRequests();
  // Stores the result code and returns it.
  std::uint32_t publish(std::uint32_t code) ZELTA_EXCLUDES(waiting_.mutex());
  Awaited awaitInsertionRequest() ZELTA_EXCLUDES(waiting_.mutex());
  void awaitReconnect() ZELTA_EXCLUDES(stopMutex_);
  void serveAgent();
  void handleEvent(PipeStream& events, std::uint32_t code);
  void readSessionLogId(PipeStream& events);
  bool stopRequested() const { return stop_.load(std::memory_order_relaxed); }

  PipePair& pipes_;
  WaitingRequests& waiting_;
  AgentEventHandler& handler_;
  const AgentLinkTimes times_;
  std::uint32_t result_ ZELTA_GUARDED_BY(waiting_.mutex()) = platform::error::kIoPending;
  platform::Mutex stopMutex_;
  std::atomic<bool> stop_{false};  // set with the stop mutex held, read without
  platform::ConditionVariable stopCondition_;
  std::thread thread_;  // last: runs on all of the above
};

}  // namespace zelta
