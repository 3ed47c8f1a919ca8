#include "agent_link/pipe_reader.h"

#include "contract/attributes.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/log.h"
#include "diagnostics/traced_lock.h"

namespace zelta {

PipeReader::PipeReader(std::uint32_t readerIndex, ReaderDevice* owner, const AgentLinkTimes& times)
    : Reader(readerIndex, owner),
      pipes_(readerIndex),
      queries_(pipes_.command(), *this, times.query),
      listener_(pipes_, waiting(), *this, times) {}

PipeReader::~PipeReader() {
  listener_.requestStop();
  pipes_.stop();
  pipes_.disconnect();
  listener_.join();
}

void PipeReader::endExchanges() noexcept {
  markAbsentForGood();
  pipes_.command().endExchanges();
}

void PipeReader::shutdown() {
  setState(SCARD_ABSENT);
  for (const CardEvent awaited : {CardEvent::kRemoved, CardEvent::kInserted}) {
    while (waiting().any(awaited)) {
      const TracedLock lock("PipeReader::shutdown", waiting().deviceLock(), __LINE__);
      waiting().cancelNewest(awaited);
    }
  }
}

void PipeReader::agentConnected() {
  if (waiting().any(CardEvent::kInserted) && initializeProtocols()) {
    unmarkAndCompleteInsertIrps(status::kSuccess, SCARD_SWALLOWED);
  }
}

void PipeReader::cardInserted() {
  {
    // Taken before the device lock, so that the lock is not held while this waits for its turn.
    const AgentQueries::Turn turn(queries_);
    const TracedLock lock("PipeReader::handleEvent", waiting().deviceLock(), __LINE__);
    waiting().note(CardEvent::kInserted);
    setState(SCARD_SWALLOWED);
    // The card is there, whatever the result.
    (void)initializeProtocols(
        [&](std::vector<std::uint8_t>& atr) { return queries_.queryAtr(atr, true, turn); });
  }
  if (waiting().any(CardEvent::kInserted)) {
    unmarkAndCompleteInsertIrps(status::kSuccess, SCARD_SWALLOWED);
  }
}

void PipeReader::cardRemoved() {
  setCardReady(0);
  const TracedLock lock("PipeReader::handleEvent", waiting().deviceLock(), __LINE__);
  waiting().note(CardEvent::kRemoved);
  // Intentional: the state stays as it is if no request waits for the removal.
  if (waiting().awaited(CardEvent::kRemoved)) {
    unmarkAndCompleteRemoveIrps(status::kSuccess, SCARD_ABSENT);
  }
}

void PipeReader::agentLost() {
  const TracedLock lock("PipeReader::handleEventPipeError", waiting().deviceLock(), __LINE__);
  setState(SCARD_ABSENT);
  setCardReady(0);
  if (waiting().any(CardEvent::kRemoved)) {
    unmarkAndCompleteRemoveIrps(status::kSuccess, SCARD_ABSENT);
  }
  if (waiting().any(CardEvent::kInserted)) {
    unmarkAndCompleteInsertIrps(status::kCancelled, SCARD_ABSENT);
  }
  pipes_.disconnect();
  // Not before: until then the agent may still answer that its card is in.
  waiting().note(CardEvent::kRemoved);
}

// Intentional: an insertion sets the state after it completes its requests, a removal before.
void PipeReader::unmarkAndCompleteInsertIrps(framework::HRESULT status, std::uint32_t newState) {
  const TracedLock lock("PipeReader::unmarkAndCompleteInsertIrps", waiting().deviceLock(),
                        __LINE__);
  // Also on a connect: the agent may not report that card again.
  if (framework::succeeded(status)) waiting().note(CardEvent::kInserted);
  waiting().completeAll(CardEvent::kInserted, status);
  setState(newState);
}

void PipeReader::unmarkAndCompleteRemoveIrps(framework::HRESULT status, std::uint32_t newState) {
  const TracedLock lock("PipeReader::unmarkAndCompleteRemoveIrps", waiting().deviceLock(),
                        __LINE__);
  setState(newState);
  waiting().completeAll(CardEvent::kRemoved, status);
}

struct PipeReader::AttributeSource {
  std::uint32_t tag;
  LogLevel level;
  AttributeValue (*value)(PipeReader& reader);
};

constexpr PipeReader::AttributeSource PipeReader::kAttributeSources[] = {
    {PIPE_NAME, LogLevel::kDebug,
     [](PipeReader& reader) -> AttributeValue { return reader.pipes_.command().name(); }},
    {EVENT_PIPE_NAME, LogLevel::kDebug,
     [](PipeReader& reader) -> AttributeValue { return reader.pipes_.event().name(); }},
    {SERVER_RESULT, LogLevel::kInfo,
     [](PipeReader& reader) -> AttributeValue { return reader.listener_.result(); }},
};

void PipeReader::IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request) {
  for (const AttributeSource& source : kAttributeSources) {
    if (source.tag != tag) continue;
    answerAttribute(request, *findAttribute(tag), source.value(*this), source.level);
    return;
  }
  Reader::IoSmartCardGetVendorDefinedAttribute(tag, request);
}

}  // namespace zelta
