// A reader whose card's answers a test sets.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "reader/reader.h"

namespace zelta::test {

class ScriptedReader : public Reader {
 public:
  using Reader::Reader;

  QueryResult QueryTransmit(const Bytes& command, ResponseBuffer& response) override {
    commands.push_back(command);
    response.assign(transmitResponse.data(), transmitResponse.size());
    if (onTransmit) onTransmit();
    return transmitResult;
  }

  QueryResult QueryAtr(Bytes& answer, bool reset) override {
    resetFlags.push_back(reset);
    answer = atr;
    if (onQueryAtr) onQueryAtr();
    return atrResult;
  }

  QueryResult CheckATR() override {
    ++checks;
    if (onCheck) onCheck();
    return checkResult;
  }

  bool NotifyCardReady() override {
    ++notifications;
    if (onNotify) onNotify();
    return notifyResult;
  }

  void shutdown() override {}
  std::uint32_t serverThread() override { return 0; }
  void endExchanges() noexcept override {}

  using Reader::cardReady;
  using Reader::currentProtocol;
  using Reader::initializeProtocols;
  using Reader::markAbsentForGood;
  using Reader::rpcType_;
  using Reader::setCardReady;
  using Reader::setState;
  using Reader::waiting;

  // The effect of an agent's event on requests.
  void report(CardEvent event) {
    const TracedLock lock("test", waiting().deviceLock(), __LINE__);
    waiting().note(event);
    if (event == CardEvent::kInserted) {
      setState(SCARD_SWALLOWED);
    } else if (waiting().awaited(event)) {
      setState(SCARD_ABSENT);
    }
    waiting().completeAll(event, status::kSuccess);
  }

  // The effect of the loss of the agent on requests.
  void loseAgent() {
    const TracedLock lock("test", waiting().deviceLock(), __LINE__);
    waiting().note(CardEvent::kRemoved);
    setState(SCARD_ABSENT);
    waiting().completeAll(CardEvent::kRemoved, status::kSuccess);
    waiting().completeAll(CardEvent::kInserted, status::kCancelled);
  }

  // The card's answers; set while no query runs, or from within one.
  QueryResult transmitResult = QueryResult::kSuccess;
  Bytes transmitResponse;
  QueryResult atrResult = QueryResult::kSuccess;
  Bytes atr{0x3B, 0x00};
  std::atomic<QueryResult> checkResult{QueryResult::kSuccess};
  bool notifyResult = true;

  // Run within the queries.
  std::function<void()> onTransmit;
  std::function<void()> onQueryAtr;
  std::function<void()> onCheck;
  std::function<void()> onNotify;

  // The commands that the card got.
  std::vector<Bytes> commands;
  std::vector<bool> resetFlags;
  std::atomic<int> checks{0};
  int notifications = 0;
};

}  // namespace zelta::test
