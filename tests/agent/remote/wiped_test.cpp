// Commands and answers on the line between two agents: no part of them is left in freed memory.
#include <future>

#include "agent/card/script_card.h"
#include "agent/remote/lent_card.h"
#include "agent/remote/remote_card.h"
#include "tests/agent/remote/line_fixture.h"
#include "tests/doubles/agent/card_notices.h"
#include "tests/support/freed_memory.h"

namespace zelta::agent {
namespace {

using test::forCard;
using test::FreedMemoryWatch;
using test::kSecret;
using test::nextOf;
using Threads = FreedMemoryWatch::Threads;

Bytes verify() {
  Bytes command = {0x00, 0x20, 0x00, 0x80, kSecret.size()};
  command.insert(command.end(), kSecret.begin(), kSecret.end());
  return command;
}

// The test's own copies are not checked: it is the other end of the line.
class WipedLine : public testing::Test {
 protected:
  test::LineEnds ends_;
  FrameChannel channel_{*ends_.far, test::patientTimes()};
  test::LogLines lines_;
  Log log_{Severity::kDebug, lines_.sink()};
};

class WipedLentCard : public WipedLine {
 protected:
  void start() {
    slot_.start();
    threads_.start();
    served_ = std::async(std::launch::async, [this] { lent_.serve(); });
    ASSERT_TRUE(channel_.greet()) << channel_.describeEnd();
    EXPECT_EQ(nextOf(channel_).kind, FrameKind::kCardIn);
  }
  ~WipedLentCard() override {
    lent_.stop();
    if (served_.valid()) served_.wait();
    threads_.stop();
    slot_.stop();
  }

  ScriptCard card_{parseScript("atr 3B00\ncommand 0020* -> echo\notherwise 9000\n"), true};
  CardSlot slot_{card_, [this] { threads_.cardDeparted(); }, test::failTest};
  CommandThreads threads_{slot_, test::kLong, test::failTest};
  LentCard lent_{*ends_.near,
                 slot_,
                 threads_,
                 {test::patientTimes(), test::kLong},
                 [](const Hello&, std::chrono::microseconds) {},
                 log_};
  std::future<void> served_;
};

TEST_F(WipedLentCard, CommandAndItsAnswer_LeaveNoSecretInFreedMemory) {
  start();
  const FreedMemoryWatch watch(Threads::kOthers);
  for (std::uint32_t number = 1; number < 4; ++number) {
    channel_.send(FrameKind::kTransmit, number, forCard(1, verify()));
    EXPECT_EQ(nextOf(channel_).payload.size(), verify().size() + 2);
  }
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

TEST_F(WipedLentCard, CommandForACardThatHasLeft_LeavesNoSecretInFreedMemory) {
  start();
  const FreedMemoryWatch watch(Threads::kOthers);
  channel_.send(FrameKind::kTransmit, 1, forCard(2, verify()));
  EXPECT_EQ(nextOf(channel_).payload.size(), 0U);
  channel_.send(FrameKind::kTransmit, 2, forCard(1, {0, 1, 2, 3}));
  EXPECT_EQ(nextOf(channel_).number, 2U);
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

TEST_F(WipedLentCard, CommandThatIsRefused_LeavesNoSecretInFreedMemory) {
  start();
  const FreedMemoryWatch watch(Threads::kOthers);
  channel_.send(FrameKind::kCardIn, 1, verify());
  served_.wait();
  EXPECT_EQ(lent_.end(), LineEnd::kBroken);
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

TEST_F(WipedLine, CommandAndAnswersOfARemoteCard_LeaveNoSecretInFreedMemory) {
  test::CardNotices listener;
  RemoteCard card(
      std::move(ends_.near), test::patientTimes(), [] {}, log_);
  auto greeted = std::async(std::launch::async, [this] { return channel_.greet(); });
  card.start(listener);
  ASSERT_TRUE(greeted.get());
  channel_.send(FrameKind::kCardIn, 1);
  listener.waitFor("in ");

  const platform::SecretBytes command(verify());
  const FreedMemoryWatch watch(Threads::kOthers);
  for (std::uint32_t number = 1; number < 4; ++number) {
    auto answer = std::async(std::launch::async, [&card, &command] {
      return platform::SecretBytes(card.transmit(command.get()));
    });
    EXPECT_EQ(nextOf(channel_).payload.size(), kNumberSize + command.size());
    channel_.send(FrameKind::kAnswer, number, verify());
    EXPECT_EQ(answer.get().size(), command.size());
    channel_.send(FrameKind::kAnswer, number, verify());  // for which no call waits
  }
  lines_.waitFor("debug: Answer 3 is late; thrown away");
  card.stop();
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

TEST(WipedFrames, FramesInPartsAndHalfAFrame_LeaveNoSecretInFreedMemory) {
  const platform::SecretBytes frame(encodeFrame({FrameKind::kTransmit, 1, forCard(1, verify())}));
  const FreedMemoryWatch watch(Threads::kOwn);
  {
    FrameDecoder decoder;
    Frame decoded;
    const auto append = [&decoder, &frame](std::size_t begin, std::size_t end) {
      decoder.pending().append(frame.get().data() + begin, end - begin);
    };
    for (std::size_t i = 0; i < frame.size(); ++i) append(i, i + 1);
    append(0, frame.size());  // which the first moves when it goes
    append(0, frame.size() - 1);
    EXPECT_EQ(decoder.next(decoded), FrameDecoder::Result::kFrame);
    EXPECT_EQ(decoder.next(decoded), FrameDecoder::Result::kFrame);
    EXPECT_EQ(decoder.next(decoded), FrameDecoder::Result::kMore);
  }
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

TEST(WipedFrames, BytesThatTheSystemDoesNotTake_LeaveNoSecretInFreedMemory) {
  const platform::SecretBytes frame(encodeFrame({FrameKind::kTransmit, 1, forCard(1, verify())}));
  const FreedMemoryWatch watch(Threads::kOwn);
  {
    test::LineEnds ends;
    for (int i = 0; i < 20000; ++i) ends.near->send(frame.get());
    platform::SecretQueue some;
    EXPECT_EQ(ends.far->receive(some, test::later()), IoResult::kDone);
  }
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

}  // namespace
}  // namespace zelta::agent
