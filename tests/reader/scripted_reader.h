// A reader whose card answers as a test says. Fails the running test where two queries overlap or
// where a query is made with the device lock held by the handlers.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <vector>

#include "reader/reader.h"
#include "tests/support/fake_reader_device.h"

namespace zelta::test {

class ScriptedReader final : public Reader {
 public:
  using Bytes = std::vector<std::uint8_t>;

  explicit ScriptedReader(FakeReaderDevice& owner, std::uint32_t unit = 0) : Reader(unit, &owner) {
    owner.onCancel = [this](IoRequest& request) { IoCancelRequest(&request); };
  }

  QueryResult QueryTransmit(const Bytes& command, Bytes& response) override {
    const Exchange exchange(*this);
    commands.push_back(command);
    response = transmitResponse;
    if (onTransmit) onTransmit();
    return transmitResult;
  }

  QueryResult QueryAtr(Bytes& answer, bool reset) override {
    const Exchange exchange(*this);
    resetFlags.push_back(reset);
    answer = atr;
    if (onQueryAtr) onQueryAtr();
    return atrResult;
  }

  QueryResult CheckATR() override {
    const Exchange exchange(*this);
    ++checks;
    if (onCheck) onCheck();
    return checkResult;
  }

  bool NotifyCardReady() override {
    const Exchange exchange(*this);
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
  using Reader::insertRequestCondition_;
  using Reader::pendingInsert_;
  using Reader::pendingRemove_;
  using Reader::presenceMutex_;
  using Reader::requestListMutex_;
  using Reader::rpcType_;
  using Reader::setCardReady;
  using Reader::setState;

  // What the card answers; set while no query runs, or from within one.
  QueryResult transmitResult = QueryResult::Success;
  Bytes transmitResponse;
  QueryResult atrResult = QueryResult::Success;
  Bytes atr{0x3B, 0x00};
  std::atomic<QueryResult> checkResult{QueryResult::Success};
  bool notifyResult = true;

  // Run within the queries.
  std::function<void()> onTransmit;
  std::function<void()> onQueryAtr;
  std::function<void()> onCheck;
  std::function<void()> onNotify;

  // What the card was asked.
  std::vector<Bytes> commands;
  std::vector<bool> resetFlags;
  int checks = 0;
  int notifications = 0;

 private:
  class Exchange {
   public:
    explicit Exchange(ScriptedReader& reader) : reader_(reader) {
      EXPECT_FALSE(reader_.exchanging_.exchange(true)) << "two exchanges overlap";
    }
    ~Exchange() { reader_.exchanging_ = false; }

   private:
    ScriptedReader& reader_;
  };

  std::atomic<bool> exchanging_{false};
};

}  // namespace zelta::test
