#include "agent/remote/remote_card.h"

#include <future>

#include "tests/agent/remote/line_fixture.h"
#include "tests/doubles/agent/card_notices.h"

namespace zelta::agent {
namespace {

using test::nextOf;

const Bytes kApdu = {0x00, 0xA4, 0x04, 0x00};
const Bytes kAnswer = {0x01, 0x90, 0x00};

class Listener final : public test::CardNotices {
 public:
  void cardFailed(const char* problem) override { add(problem); }
};

// The test plays the near end, where the card is.
class Remote : public testing::Test {
 protected:
  void start() {
    auto greeted = std::async(std::launch::async, [this] { return near_.greet(); });
    card_.start(listener_);
    ASSERT_TRUE(greeted.get()) << near_.describeEnd();
  }
  void startWithCard() {
    start();
    near_.send(FrameKind::kCardIn, 1);
    listener_.waitFor("in ");
  }
  std::future<Bytes> transmit() {
    return std::async(std::launch::async, [this] { return card_.transmit(kApdu); });
  }

  test::LineEnds ends_;
  FrameChannel near_{*ends_.near, test::patientTimes()};
  std::promise<void> ended_;
  test::LogLines lines_;
  Log log_{Severity::kDebug, lines_.sink()};
  Listener listener_;
  RemoteCard card_{std::move(ends_.far), test::patientTimes(), [this] { ended_.set_value(); },
                   log_};
};

TEST_F(Remote, Calls_AreNumberedRequestsForTheCardThatIsIn) {
  start();
  near_.send(FrameKind::kCardIn, 7);
  listener_.waitFor("in ");
  const std::pair<FrameKind, std::function<Bytes()>> calls[] = {
      {FrameKind::kReset, [this] { return card_.reset(); }},
      {FrameKind::kAtr, [this] { return card_.atr(); }},
      {FrameKind::kTransmit, [this] { return card_.transmit(kApdu); }}};
  std::uint32_t number = 0;
  for (const auto& [kind, call] : calls) {
    auto answer = std::async(std::launch::async, call);
    const Frame request = nextOf(near_);
    EXPECT_EQ(request.kind, kind);
    EXPECT_EQ(request.number, ++number);
    const Bytes apdu = kind == FrameKind::kTransmit ? kApdu : Bytes();
    EXPECT_EQ(request.payload.get(), test::forCard(7, apdu));
    near_.send(FrameKind::kAnswer, number, kAnswer);
    EXPECT_EQ(answer.get(), kAnswer);
  }
  card_.ready();
  EXPECT_EQ(nextOf(near_).kind, FrameKind::kReady);
}

TEST_F(Remote, WithoutACard_NothingIsAsked) {
  start();
  EXPECT_EQ(card_.transmit(kApdu), Bytes());
  EXPECT_EQ(card_.atr(), Bytes());
  card_.ready();
  EXPECT_EQ(nextOf(near_).kind, FrameKind::kReady);
}

TEST_F(Remote, AnswerWithAnOldNumber_IsThrownAway) {
  startWithCard();
  auto first = transmit();
  EXPECT_EQ(nextOf(near_).number, 1u);
  near_.send(FrameKind::kCardOut);
  EXPECT_EQ(first.get(), Bytes());
  near_.send(FrameKind::kCardIn, 2);
  listener_.waitFor("in out in ");
  auto second = transmit();
  EXPECT_EQ(nextOf(near_).number, 2u);
  near_.send(FrameKind::kAnswer, 1, Bytes{0x6F, 0x00});
  near_.send(FrameKind::kAnswer, 2, kAnswer);
  EXPECT_EQ(second.get(), kAnswer);
  EXPECT_TRUE(lines_.has("debug: Answer 1 is late; thrown away"));
}

TEST_F(Remote, AnswerThatNobodyAskedFor_IsThrownAway) {
  startWithCard();
  near_.send(FrameKind::kAnswer, 9, kAnswer);
  lines_.waitFor("debug: Answer 9 is late; thrown away");
}

TEST_F(Remote, LineThatBreaksDuringACall_EndsTheCallAfterTheRemoval) {
  startWithCard();
  auto answer = std::async(std::launch::async, [this] {
    Bytes bytes = card_.transmit(kApdu);
    EXPECT_EQ(listener_.text().substr(0, 7), "in out ");
    return bytes;
  });
  EXPECT_EQ(nextOf(near_).kind, FrameKind::kTransmit);
  Bytes half = encodeFrame({FrameKind::kAnswer, 1, kAnswer});
  half.resize(6);
  ends_.near->send(half);
  ends_.near.reset();
  EXPECT_EQ(answer.get(), Bytes());
  listener_.waitFor("in out the line is broken");
}

TEST_F(Remote, Bye_EndsTheProgramAsAsked) {
  startWithCard();
  near_.send(FrameKind::kBye);
  ended_.get_future().wait();
  EXPECT_EQ(listener_.text(), "in out ");
}

TEST_F(Remote, FrameThatIsNotTheNearEnds_IsAFailure) {
  startWithCard();
  near_.send(FrameKind::kReset, 1, numberBytes(1));
  listener_.waitFor("in out what came makes no sense");
}

TEST_F(Remote, Interrupt_EndsTheCallAndEveryLaterOne) {
  startWithCard();
  auto answer = transmit();
  EXPECT_EQ(nextOf(near_).kind, FrameKind::kTransmit);
  card_.interrupt();
  EXPECT_EQ(answer.get(), Bytes());
  EXPECT_EQ(card_.reset(), Bytes());
  card_.stop();
  EXPECT_FALSE(near_.next());
  EXPECT_EQ(near_.end(), LineEnd::kBye);
  EXPECT_EQ(listener_.text().substr(0, 3), "in ");
}

TEST_F(Remote, CardIsMovedAtItsOwnMachine) {
  start();
  EXPECT_EQ(card_.insert(), "the card is at another machine; move it there");
  EXPECT_EQ(card_.remove(), "the card is at another machine; move it there");
}

TEST_F(Remote, WithoutAHello_CannotStart) {
  ends_.near.reset();
  EXPECT_THAT([this] { card_.start(listener_); },
              testing::ThrowsMessage<std::runtime_error>("no card: the line is broken"));
}

}  // namespace
}  // namespace zelta::agent
