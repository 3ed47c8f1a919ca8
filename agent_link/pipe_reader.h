// A reader whose card is behind an agent: a process that opens the reader's two named pipes as
// their client. On the command pipe the reader asks and the agent answers (`AgentQueries`); on the
// event pipe the agent reports insertions and removals (`EventListener`). docs/wire-protocol.md has
// the bytes.
//
// Ownership: the device creates and destroys its readers. A reader owns its two pipes and one
// server thread, which runs from construction to destruction (or ends early, see `serverThread`),
// and a watchdog thread from its first query on. Destruction ends blocked calls on the pipes, joins
// the threads and closes the pipes; it must not happen with the device lock held, nor while
// a query runs.
//
// Threads: the queries may be called from several threads at once; they take turns. Each is done
// within twice its limit of about five seconds. `NotifyCardReady` waits as long for its turn. The
// notification itself has no limit: it ends when the agent reads it or disconnects, by
// `endExchanges`, or when a query has waited its whole limit for a turn. `endExchanges` may be
// called from any thread and needs no lock that may be held during an exchange; `shutdown` from any
// thread that does not hold a lock below the device lock. docs/threads.md has the locks' order.
//
// Failures are logged where they happen; a query's caller learns only success, failure or
// time-out. Intentional: if the pipes could not be created, or no insertion request came within ten
// seconds of the start or of the loss of the agent, the reader never serves again and its queries
// fail.
#pragma once

#include <cstdint>
#include <vector>

#include "agent_link/agent_event_handler.h"
#include "agent_link/agent_link_times.h"
#include "agent_link/agent_queries.h"
#include "agent_link/event_listener.h"
#include "agent_link/pipe_pair.h"
#include "reader/reader.h"

namespace zelta {

class PipeReader final : public Reader, private AgentEventHandler {
 public:
  // Starts the server thread. Throws std::invalid_argument for a null owner and std::system_error
  // if the thread cannot be started.
  PipeReader(std::uint32_t readerIndex, ReaderDevice* owner, const AgentLinkTimes& times = {});
  ~PipeReader() override;

  QueryResult QueryTransmit(const Bytes& command, ResponseBuffer& response) override {
    return queries_.transmit(command, response);
  }
  QueryResult QueryAtr(std::vector<std::uint8_t>& atr, bool reset) override {
    return queries_.queryAtr(atr, reset);
  }
  QueryResult CheckATR() override { return queries_.checkAtr(); }
  bool NotifyCardReady() override { return queries_.notifyCardReady(); }
  void shutdown() override;
  // 0 if it ended because the reader is being destroyed, the system error of a failed creation of
  // the pipes, or 5023 if nobody waited for a card for ten seconds. Runs on the reader's own thread
  // only.
  std::uint32_t serverThread() override { return listener_.serve(); }
  // Answers the names of the two pipes and the server thread's result.
  void IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request) override;
  // Cancels the command pipe until no call of an exchange is in flight; those of a later exchange
  // fail with 995. The server thread goes on listening, or waiting for an agent.
  void endExchanges() noexcept override;

 private:
  struct AttributeSource;
  static const AttributeSource kAttributeSources[];

  void agentConnected() override;
  void cardInserted() override;
  void cardRemoved() override;
  void agentLost() override;
  void unmarkAndCompleteInsertIrps(framework::HRESULT status, std::uint32_t newState);
  void unmarkAndCompleteRemoveIrps(framework::HRESULT status, std::uint32_t newState);

  PipePair pipes_;
  AgentQueries queries_;
  EventListener listener_;  // last: its thread uses all of the above
};

}  // namespace zelta
