// The reader whose card is at the far end of an agent: a process that opens the reader's two named
// pipes as their client. On the command pipe the reader asks and the agent answers; on the event
// pipe the agent reports cards that come and go. docs/wire-protocol.md has the bytes.
//
// Ownership: the device creates and destroys its readers. A reader owns its two pipes and one
// server thread, which runs from construction to destruction (or ends early, see `serverThread`).
// Destruction ends what is blocked on the pipes, joins the thread and closes the pipes; it must
// not happen with the device lock or the presence mutex held, nor while a query runs.
//
// Threads: the queries run on the callers' threads, one at a time (the callers hold the
// exchange mutex); each blocks for at most about five seconds. `NotifyCardReady` has no time limit:
// it ends with the agent's connection or with `endExchanges`. `endExchanges` may be called from any
// thread and needs no lock that anybody may hold during an exchange; `shutdown` from any thread
// that does not hold a lock below the device lock.
//
// Locks, in the order in which they nest: presence mutex, device lock, then one of request list
// mutex, pipe mutex and exchange mutex. The presence mutex is held while a card event or
// the loss of the agent is handled, never while the thread waits for the agent to send something
// unasked.
//
// Failures are logged where they happen; a query's caller learns only success, failure or
// time-out. A reader whose pipes could not be created, or that nobody asked for a card within ten
// seconds of its start or of the loss of its agent, stays dead, deliberately: its queries fail.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "agent_link/pipe_calls.h"
#include "agent_link/pipe_handle.h"
#include "agent_link/pipe_stream.h"
#include "agent_link/query_watchdog.h"
#include "platform/sync.h"
#include "reader/reader.h"

namespace zelta {

// How long the reader waits for what.
struct AgentLinkTimes {
  // For the answer to a query.
  std::chrono::milliseconds query = QueryWatchdog::kQueryTime;
  // For somebody to wait for a card's insertion, before the agent is let in.
  std::chrono::milliseconds insertRequest{10000};
  // Between a failed connect and the next.
  std::chrono::milliseconds reconnect{100};
};

class PipeReader final : public Reader {
 public:
  // Starts the server thread. Throws std::invalid_argument for a null owner and std::system_error
  // where no thread can be started.
  PipeReader(std::uint32_t readerIndex, ReaderDevice* owner, const AgentLinkTimes& times = {});
  ~PipeReader() override;

  QueryResult QueryTransmit(const std::vector<std::uint8_t>& command,
                            std::vector<std::uint8_t>& response) override;
  QueryResult QueryAtr(std::vector<std::uint8_t>& atr, bool reset) override;
  QueryResult CheckATR() override;
  bool NotifyCardReady() override;
  void shutdown() override;
  // 0 where it ended because the reader is being destroyed, the system error of a failed creation
  // of the pipes, or 5023 where nobody waited for a card for ten seconds. Runs on the reader's
  // own thread only.
  std::uint32_t serverThread() override;
  // Answers the names of the two pipes.
  void IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request) override;
  // Cancels the command pipe until no call of an exchange is in flight; those of a later exchange
  // fail with 995. The server thread goes on listening, or waiting for an agent.
  void endExchanges() noexcept override;

 private:
  // Endpoints (pipe_reader.cpp). A numeric result is a system error number, 0 for success.
  std::uint32_t createPipes();
  static bool createPipe(const std::string& name, platform::SecurityDescriptor descriptor,
                         PipeHandle& pipe);
  std::uint32_t connectPipes();
  std::uint32_t connectPipe(PipeCalls& calls, const PipeHandle& pipe, const char* which);
  void dropVanishedClient(PipeCalls& calls, const PipeHandle& pipe);
  void disconnectPipes();
  void stopServer();

  // Queries (pipe_reader_queries.cpp).
  template <typename Exchange>
  QueryResult runGuarded(const char* name, Exchange exchange);
  void cancelQuery();
  bool askTransmit(PipeStream& pipe, const std::vector<std::uint8_t>& command,
                   std::vector<std::uint8_t>& response);
  // What failed, or null; the reason is in the last error.
  static const char* exchangeApdu(PipeStream& pipe, const std::vector<std::uint8_t>& command,
                                  std::vector<std::uint8_t>& response);

  // Server thread and events (pipe_reader_events.cpp).
  enum class InsertRequest { Waiting, None, Stopped };
  void runServer();
  InsertRequest awaitInsertRequest();
  void awaitReconnect();
  void serveAgent();
  void completeInsertOnConnect();
  void handleEvent(PipeStream& events, std::uint32_t code);
  void handleCardRemoved();
  void handleCardInserted();
  void readSessionLogId(PipeStream& events);
  void handleEventPipeError();
  void unmarkAndCompleteInsertIrps(framework::HRESULT status, std::uint32_t newState);
  void unmarkAndCompleteRemoveIrps(framework::HRESULT status, std::uint32_t newState);
  bool stopRequested() const { return stop_.load(std::memory_order_relaxed); }

  const AgentLinkTimes times_;

  // Held while the handles are replaced and while the pipes are cancelled and disconnected. The
  // handles are read without it, deliberately: whoever blocks on a pipe cannot hold it.
  platform::Mutex pipeMutex_;
  PipeHandle commandPipe_;
  PipeHandle eventPipe_;
  const std::string commandPipeName_;
  const std::string eventPipeName_;
  PipeCalls commandCalls_;
  PipeCalls eventCalls_;

  platform::Mutex stopMutex_;
  std::atomic<bool> stop_{false};  // set under the stop mutex, read without
  platform::ConditionVariable stopCondition_;
  std::thread server_;
};

}  // namespace zelta
