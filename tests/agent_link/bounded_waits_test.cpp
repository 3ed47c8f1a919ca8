// No request waits without a bound, whatever the agent leaves undone. On pipes that serialise their
// operations as Windows' handles do and have no room for what is not read.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds kHang{30};
constexpr std::uint32_t kAborted = platform::error::kOperationAborted;
constexpr char kGaveUp[] = "Another exchange did not end in time, nothing was sent";

const Bytes kNotAccepted = {0x69, 0x01};

class BoundedWaits : public LinkTest {
 protected:
  ~BoundedWaits() override { stop(); }

  // Both pipes, with a card in.
  void connect(std::chrono::milliseconds queryLimit) {
    AgentLinkTimes times;
    times.query = queryLimit;
    start(times);
    ASSERT_TRUE(waitUntilCreated());
    LinkRequest& insertion = waitForInsertion();
    ASSERT_NE(event_ = pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
    ASSERT_NE(command_ = pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
    answerAtr(0);
    ASSERT_TRUE(insertion.waitForCompletion());
    ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  }

  void answerAtr(std::uint32_t command) {
    ASSERT_EQ(pipes_.clientRead(command_, 4), number(command));
    ASSERT_TRUE(pipes_.clientWrite(command_, number(2, {0x3B, 0x00})));
  }

  using Handler = void (Reader::*)(IoRequest*, std::size_t, std::size_t);

  // A control on a thread of its own, as the framework dispatches it.
  std::future<void> dispatch(Handler handler, LinkRequest& request) {
    return std::async(std::launch::async,
                      [this, handler, &request] { (reader().*handler)(&request, 12, 4096); });
  }

  LinkRequest& makeTransmit() {
    return makeRequest(number(0, number(kTransmitHeaderSize, {0x00, 0xA4, 0x04, 0x00})));
  }

  void expectNotAccepted(const LinkRequest& transmit) {
    EXPECT_EQ(transmit.status(), status::kSuccess);
    Bytes output = transmit.output();
    output.resize(transmit.information());
    EXPECT_EQ(output, number(0, number(kTransmitHeaderSize, kNotAccepted)));
  }

  bool waitUntilStuck() { return pipes_.waitUntilQueued(commandPipeName(0)); }

  template <typename Result>
  static bool isReady(std::future<Result>& call) {
    return call.wait_for(kHang) == std::future_status::ready;
  }

  SerialisingPipes pipes_;
  GapPipes gaps_{pipes_};
  ScopedPipes scoped_{gaps_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

TEST_F(BoundedWaits, NotificationThatIsNotReadHoldsUpNobodyForEver) {
  connect(300ms);
  LinkRequest& select = makeRequest(number(SCARD_PROTOCOL_T0));
  auto selecting = dispatch(&Reader::IoSmartCardSetProtocol, select);
  answerAtr(0);
  ASSERT_TRUE(log_.waitFor("PROTOCOL SET: T0"));
  ASSERT_TRUE(waitUntilStuck());
  LinkRequest& reset = makeRequest(number(SCARD_COLD_RESET));
  LinkRequest& present = makeRequest();
  auto resetting = dispatch(&Reader::IoSmartCardPower, reset);
  Bytes response;
  auto transmitting = std::async(std::launch::async, [&] {
    return reader().QueryTransmit({0, 1}, response);
  });
  auto asking = dispatch(&Reader::IoSmartCardIsPresent, present);
  auto cancelling = std::async(std::launch::async, [&] { present.cancel(); });
  EXPECT_TRUE(isReady(resetting)) << "the reset hangs";
  EXPECT_TRUE(isReady(transmitting)) << "the transmit hangs";
  EXPECT_TRUE(isReady(asking)) << "the presence request hangs";
  EXPECT_TRUE(isReady(cancelling)) << "the cancel hangs";
  EXPECT_TRUE(isReady(selecting)) << "the notification hangs";
  reader().endExchanges();  // for one that hangs
  resetting.get();
  asking.get();
  EXPECT_EQ(transmitting.get(), QueryResult::kTimeout);
  EXPECT_EQ(select.status(), status::kSuccess);
  EXPECT_EQ(reset.status(), status::kNoMedia);
  EXPECT_EQ(present.status(), status::kCancelled);
  EXPECT_EQ(log_.count("Failed to send ready notification"), 1u);
}

// One asks, one has the next turn, and a card is inserted meanwhile, whose ATR is asked for with
// the device lock held.
TEST_F(BoundedWaits, QueuedQueriesOfASilentAgentAreAllDoneWithinTwiceTheLimit) {
  constexpr auto kLimit = 1000ms;
  using Clock = std::chrono::steady_clock;
  connect(kLimit);
  std::vector<LinkRequest*> requests;
  std::vector<std::future<Clock::duration>> calls;
  const auto ask = [&] {
    LinkRequest& request = makeRequest(number(SCARD_ATTR_ATR_STRING));
    requests.push_back(&request);
    calls.push_back(std::async(std::launch::async, [this, &request, begin = Clock::now()] {
      reader().IoSmartCardGetAttribute(&request, 12, 4096);
      return Clock::now() - begin;
    }));
  };
  ask();
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  ask();
  (void)calls.front().wait_for(kLimit / 4);  // those after this still wait when the card comes
  ask();
  ask();
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1)) << "the next turn";
  (void)calls[1].wait_for(kLimit / 8);  // the card's turn comes before its wait is up
  ASSERT_TRUE(pipes_.clientWrite(event_, number(1)));
  std::vector<Clock::duration> times;
  for (auto& call : calls) times.push_back(call.get());
  std::sort(times.begin(), times.end());
  EXPECT_LT(times[2], 5 * kLimit / 2);
  EXPECT_LT(times[3], 7 * kLimit / 2) << "the second, which may find the lock held at its end";
  for (const LinkRequest* request : requests) EXPECT_EQ(request->status(), status::kNoMedia);
  EXPECT_GE(log_.count(std::string("[QueryAtr]") + kGaveUp), 2u);
  EXPECT_GE(log_.count("[QueryAtr]Timeout"), 4u);
}

TEST_F(BoundedWaits, QueryThatHasEndedANotificationHasItsWholeLimit) {
  connect(1s);
  auto notifying = std::async(std::launch::async, [this] { return reader().NotifyCardReady(); });
  ASSERT_TRUE(waitUntilStuck());
  auto checking = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  EXPECT_FALSE(notifying.get());
  EXPECT_TRUE(log_.contains(error(kAborted, "Failed to send ready notification")));
  answerAtr(1);  // what the agent has not read of the notification is gone
  EXPECT_EQ(checking.get(), QueryResult::kSuccess);
  EXPECT_EQ(log_.count("Query timeout"), 0u);
}

TEST_F(BoundedWaits, NotificationThatTwoQueriesWaitForIsCancelledOnce) {
  connect(100ms);
  gaps_.holdNext(GapPipes::Call::kWrite, "command0");  // where no cancel reaches it
  auto notifying = std::async(std::launch::async, [this] { return reader().NotifyCardReady(); });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto first = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  auto second = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  EXPECT_EQ(first.get(), QueryResult::kTimeout);
  EXPECT_EQ(second.get(), QueryResult::kTimeout);
  EXPECT_EQ(log_.count("Failed to cancel IO on the command named pipe"), 1u);
  gaps_.letGo();
  reader().endExchanges();
  EXPECT_FALSE(notifying.get());
}

TEST_F(BoundedWaits, CheckWithoutATurnIsATimeOutThatTouchesNothing) {
  connect(100ms);
  log_.clear();
  gaps_.holdNext(GapPipes::Call::kWrite, "command0");  // beyond its time, which is up
  auto first = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  EXPECT_EQ(reader().CheckATR(), QueryResult::kTimeout);
  EXPECT_EQ(log_.count(std::string("[CheckATR]") + kGaveUp), 1u);
  gaps_.letGo();
  EXPECT_EQ(first.get(), QueryResult::kTimeout);
  EXPECT_EQ(log_.count("[CheckATR]Failed to write QueryAtr command"), 1u);
}

TEST_F(BoundedWaits, EmptyApduNeedsNoTurn) {
  connect(10min);
  auto first = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  Bytes response;
  auto empty = std::async(std::launch::async, [&] { return reader().QueryTransmit({}, response); });
  EXPECT_TRUE(isReady(empty)) << "waits for its turn";
  ASSERT_TRUE(pipes_.clientWrite(command_, number(0)));
  EXPECT_EQ(empty.get(), QueryResult::kSuccess);
  EXPECT_EQ(response, kNotAccepted);
  first.get();
}

TEST_F(BoundedWaits, NotificationWithoutATurnIsNotSent) {
  connect(300ms);
  auto notifying = std::async(std::launch::async, [this] { return reader().NotifyCardReady(); });
  ASSERT_TRUE(waitUntilStuck());
  log_.clear();
  EXPECT_FALSE(reader().NotifyCardReady());
  EXPECT_EQ(log_.records(),
            (std::vector<LogRecord>{error(kNoError, std::string("[NotifyCardReady]") + kGaveUp),
                                    error(kNoError, "Failed to send ready notification")}));
  EXPECT_EQ(pipes_.clientRead(command_, 4), number(3)) << "the first is still being sent";
  EXPECT_TRUE(notifying.get());
}

TEST_F(BoundedWaits, RemovalIsHandledAtOnceAlthoughACheckIsUnanswered) {
  connect(10min);
  LinkRequest& removal = makeRequest();
  auto queueing = dispatch(&Reader::IoSmartCardIsAbsent, removal);
  answerAtr(1);
  queueing.get();
  LinkRequest& present = makeRequest();
  auto asking = dispatch(&Reader::IoSmartCardIsPresent, present);
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  ASSERT_TRUE(pipes_.clientWrite(event_, number(0)));
  EXPECT_TRUE(removal.waitForCompletion());
  EXPECT_EQ(removal.status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  ASSERT_TRUE(pipes_.clientWrite(command_, number(0)));
  EXPECT_TRUE(isReady(asking));
}

TEST_F(BoundedWaits, LossOfTheAgentIsHandledAtOnceAlthoughACheckIsUnanswered) {
  connect(10min);
  LinkRequest& absent = makeRequest();
  auto asking = dispatch(&Reader::IoSmartCardIsAbsent, absent);
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  pipes_.closeClient(event_);
  EXPECT_TRUE(absent.waitForCompletion());
  EXPECT_EQ(absent.status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  reader().endExchanges();  // for one that hangs
  asking.get();
}

// It is not cancelled with those that waited before the loss.
TEST_F(BoundedWaits, RequestWhoseCheckEndsWithItsAgentWaitsForTheNext) {
  connect(10min);
  LinkRequest& present = makeRequest();
  auto asking = dispatch(&Reader::IoSmartCardIsPresent, present);
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  pipes_.closeClient(event_);
  ASSERT_TRUE(isReady(asking));
  ASSERT_TRUE(waitUntilStuck());
  ASSERT_NE(command_ = pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  ASSERT_TRUE(pipes_.waitUntilQueued(eventPipeName(0)));
  ASSERT_NE(event_ = pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
  answerAtr(0);
  EXPECT_TRUE(present.waitForCompletion());
  EXPECT_EQ(present.status(), status::kSuccess);
}

TEST_F(BoundedWaits, TransmitBehindAnUnansweredCheckWhoseCardIsPulledAnswersNotAccepted) {
  connect(10min);
  LinkRequest& removal = makeRequest();
  auto queueing = dispatch(&Reader::IoSmartCardIsAbsent, removal);
  answerAtr(1);
  queueing.get();
  LinkRequest& present = makeRequest();
  auto asking = dispatch(&Reader::IoSmartCardIsPresent, present);
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  LinkRequest& transmit = makeTransmit();
  auto transmitting = dispatch(&Reader::IoSmartCardTransmit, transmit);
  ASSERT_TRUE(log_.waitFor("[TRSM]IOCTL_SMARTCARD_TRANSMIT"));
  ASSERT_TRUE(pipes_.clientWrite(event_, number(0)));
  ASSERT_TRUE(log_.waitFor("Card removed"));
  ASSERT_TRUE(removal.waitForCompletion());
  ASSERT_TRUE(pipes_.clientWrite(command_, number(0)));
  ASSERT_EQ(pipes_.clientRead(command_, 12).size(), 12u);
  ASSERT_TRUE(pipes_.clientWrite(command_, number(0)));
  transmitting.get();
  asking.get();
  expectNotAccepted(transmit);
}

TEST_F(BoundedWaits, EndOfExchangesAnswersATransmitUnderWayNotAccepted) {
  connect(10min);
  LinkRequest& transmit = makeTransmit();
  auto transmitting = dispatch(&Reader::IoSmartCardTransmit, transmit);
  ASSERT_EQ(pipes_.clientRead(command_, 12).size(), 12u);
  reader().endExchanges();
  transmitting.get();
  expectNotAccepted(transmit);
}

TEST_F(BoundedWaits, EndOfExchangesLeavesAResetUnderWayWithoutMedia) {
  connect(10min);
  LinkRequest& reset = makeRequest(number(SCARD_WARM_RESET));
  auto resetting = dispatch(&Reader::IoSmartCardPower, reset);
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(0));
  reader().endExchanges();
  resetting.get();
  EXPECT_EQ(reset.status(), status::kNoMedia);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
}

// A call that no cancel reaches, until the test lets it go.
TEST_F(BoundedWaits, CallThatNeverReturnsKeepsTheDeviceLockForAMomentOnlyWhenTheAgentIsLost) {
  connect(10min);
  LinkRequest& present = makeRequest();
  gaps_.holdNext(GapPipes::Call::kRead, "command0");
  auto asking = dispatch(&Reader::IoSmartCardIsPresent, present);
  EXPECT_EQ(pipes_.clientRead(command_, 4), number(1));
  EXPECT_TRUE(gaps_.waitUntilHeld());
  pipes_.closeClient(event_);
  EXPECT_TRUE(log_.waitFor("Event named pipe read error"));
  EXPECT_TRUE(
      log_.waitFor("Gave up cancelling IO on the command named pipe: 1 calls have not returned"));
  LinkRequest& state = makeRequest();
  auto getting = dispatch(&Reader::IoSmartCardGetState, state);
  EXPECT_TRUE(isReady(getting)) << "the device lock is held";
  pipes_.closeClient(command_);
  gaps_.letGo();
  asking.get();
}

}  // namespace
}  // namespace zelta::test
