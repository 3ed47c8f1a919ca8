// A card that leaves while the driver works on a request for it, and goes on doing so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "pcsc/channel_table.h"
#include "tests/pcsc/channel_fixture.h"
#include "tests/support/waiting_thread.h"

namespace zelta::pcsc {
namespace {

using test::FakeOperation;
using test::FakeReader;
using test::succeededWith;
using test::WaitingThread;
using testing::ElementsAre;
using testing::IsEmpty;

using Call = std::function<RESPONSECODE(Channel&)>;

struct CardCall {
  const char* name;
  std::uint32_t code;  // of its I/O control
  Call make;
  RESPONSECODE whenTheCardLeaves;
};

Reply send(Channel& channel) {
  return channel.transmit({1, {0x00, 0xA4, 0x04, 0x00}, MAX_BUFFER_SIZE_EXTENDED});
}

host::IoResult answerTo(const FakeReader::Request& request) {
  Bytes answer(request.input.begin(), request.input.begin() + kTransmitHeaderSize);
  answer.insert(answer.end(), {0x90, 0x00});
  return succeededWith(answer);
}

const CardCall kCalls[] = {
    {"transmit", kIoctlTransmit, [](Channel& channel) { return send(channel).code; },
     IFD_ICC_NOT_PRESENT},
    {"power-up", kIoctlPower, [](Channel& channel) { return channel.power(IFD_POWER_UP).code; },
     IFD_ICC_NOT_PRESENT},
    {"reset", kIoctlPower, [](Channel& channel) { return channel.power(IFD_RESET).code; },
     IFD_ICC_NOT_PRESENT},
    {"power-down", kIoctlPower, [](Channel& channel) { return channel.power(IFD_POWER_DOWN).code; },
     IFD_SUCCESS},
    {"protocol", kIoctlSetProtocol,
     [](Channel& channel) { return channel.setProtocol(SCARD_PROTOCOL_T1); }, IFD_ICC_NOT_PRESENT},
};

void PrintTo(const CardCall& call, std::ostream* out) { *out << call.name; }

class RemovalTest : public test::ChannelTest, public testing::WithParamInterface<CardCall> {
 protected:
  // The driver's request of a call, held back.
  std::shared_ptr<FakeOperation> call() {
    reader_->hold(GetParam().code);
    caller_.emplace([this] { code_ = GetParam().make(*channel_); });
    return reader_->waitForWaiting(GetParam().code);
  }
  // The same, and the call waits for it.
  std::shared_ptr<FakeOperation> begin() {
    auto request = call();
    EXPECT_TRUE(request != nullptr && caller_->waits());
    return request;
  }
  // The driver answers again.
  void release(const std::shared_ptr<FakeOperation>& request) {
    answerPower(succeededWith(kAtr));
    reader_->answer(kIoctlTransmit, answerTo);
    reader_->answer(kIoctlSetProtocol, [](const auto&) { return succeededWith({}); });
    request->complete(succeededWith(Bytes(64, 0xEE)));
  }
  void useNewCard() {
    EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
    EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
    EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_SUCCESS);
    EXPECT_THAT(send(*channel_).bytes, ElementsAre(0x90, 0x00));
  }

  RESPONSECODE code_ = IFD_COMMUNICATION_ERROR;
  std::optional<WaitingThread> caller_;
};

TEST_P(RemovalTest, EndsTheCallAtOnceAndTheNextCardWorksOnceTheDriverIsDone) {
  insertAndPowerUp();
  const auto request = begin();
  reader_->removeCard();
  ASSERT_TRUE(caller_->ends());
  EXPECT_EQ(code_, GetParam().whenTheCardLeaves);
  EXPECT_FALSE(request->completed());
  poll();  // for the removal
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  // The next card is in, but the driver's exchange for the old one goes on.
  reader_->insertCard();
  ASSERT_NE(reader_->waitForWaiting(kIoctlIsAbsent), nullptr);
  const std::size_t requests = reader_->count(kIoctlTransmit) + reader_->count(kIoctlPower);
  EXPECT_EQ(send(*channel_).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(kIoctlTransmit) + reader_->count(kIoctlPower), requests);
  {
    WaitingThread polling([this] { poll(); });
    ASSERT_TRUE(polling.waits());
    EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
    release(request);
    ASSERT_TRUE(polling.ends());
  }
  useNewCard();
}

TEST_P(RemovalTest, LateAnswerIsNobodysAlsoWhereNoCardIsInAnyMore) {
  insertAndPowerUp();
  const auto request = begin();
  reader_->removeCard();
  ASSERT_TRUE(caller_->ends());
  poll();
  release(request);
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  insert();
  useNewCard();
}

TEST_P(RemovalTest, ClosingTheChannelWaitsForTheDriver) {
  insertAndPowerUp();
  const auto request = begin();
  reader_->removeCard();
  ASSERT_TRUE(caller_->ends());
  WaitingThread closing([this] {
    channel_->close();
    channel_.reset();
  });
  ASSERT_TRUE(closing.waits());
  release(request);
  EXPECT_TRUE(closing.ends());
}

TEST_P(RemovalTest, CompletionMayComeAfterTheChannelsEnd) {
  channel_.emplace(reader_->open(), log_->log(), std::chrono::milliseconds(30));
  insertAndPowerUp();
  const auto request = call();  // given up for the removal or for its time
  ASSERT_NE(request, nullptr);
  reader_->removeCard();
  ASSERT_TRUE(caller_->ends());
  channel_->close();
  channel_.reset();
  EXPECT_TRUE(request->complete(succeededWith(kAtr)));
}

INSTANTIATE_TEST_SUITE_P(Calls, RemovalTest, testing::ValuesIn(kCalls), [](const auto& instance) {
  std::string name = instance.param.name;
  name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
  return name;
});

class TimeLimitTest : public test::ChannelTest {
 protected:
  TimeLimitTest() { channel_.emplace(reader_->open(), log_->log(), std::chrono::milliseconds(30)); }
};

TEST_F(TimeLimitTest, CommandThatTheDriverNeverEndsIsGivenUpAndTheCardCycledAfterIt) {
  insertAndPowerUp();
  reader_->hold(kIoctlTransmit);
  const Reply reply = send(*channel_);
  EXPECT_EQ(reply.code, IFD_RESPONSE_TIMEOUT);
  EXPECT_THAT(reply.bytes, IsEmpty());
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(send(*channel_).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(kIoctlTransmit), 1u);
  poll();  // for the removal
  reader_->waitForWaiting(kIoctlTransmit)->complete(succeededWith({}));
  reader_->answer(kIoctlTransmit, answerTo);
  poll();  // for the card that is back
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_SUCCESS);
  EXPECT_EQ(send(*channel_).code, IFD_SUCCESS);
}

// The last channel's end takes the driver down, which ends what it still has.
TEST(RemovalTableTest, TableClosesWithAnAbandonedCommand) {
  const auto reader = std::make_shared<FakeReader>();
  const auto record = std::make_shared<test::FakeHostRecord>();
  ChannelTable table(
      {[&](const std::string& path, host::HostOptions options) {
         return test::FakeDriverHost::load(path, std::move(options), record, {{L"dev0", reader}});
       },
       [] { return std::string("/module.so"); }, [](auto, const auto&) {}});
  ASSERT_EQ(table.open(0, 0), IFD_SUCCESS);
  {
    const ChannelTable::Use use(table, 0);
    reader->insertCard();
    use.channel()->awaitChange(FakeReader::kLimit);
    reader->hold(kIoctlTransmit);
    WaitingThread caller([&] { EXPECT_EQ(send(*use.channel()).code, IFD_ICC_NOT_PRESENT); });
    ASSERT_NE(reader->waitForWaiting(kIoctlTransmit), nullptr);
    reader->removeCard();
    ASSERT_TRUE(caller.ends());
  }
  EXPECT_EQ(table.close(0), IFD_SUCCESS);
  EXPECT_EQ(record->takenDown, 1);
}

}  // namespace
}  // namespace zelta::pcsc
