#include "agent/remote/frame_channel.h"

#include <future>

#include "agent/version.h"
#include "tests/agent/remote/line_fixture.h"

namespace zelta::agent {
namespace {

using test::kLong;
using test::later;
using test::patientTimes;

constexpr std::chrono::milliseconds kShort{20};

// The channel under test is at the near end; the test plays the far end by hand.
class Channel : public testing::Test {
 protected:
  void sayHello(std::uint32_t protocol = kFrameProtocol) {
    ends_.far->send(encodeFrame(helloFrame({protocol, "9.9"})));
  }
  // Waits until the channel has sent `size` bytes; returns them.
  Bytes sent(std::size_t size) {
    platform::SecretQueue bytes;
    while (bytes.size() < size) EXPECT_EQ(ends_.far->receive(bytes, later()), IoResult::kDone);
    return bytes.get();
  }

  test::LineEnds ends_;
};

TEST_F(Channel, Greeting_TakesBothHellos) {
  FrameChannel channel(*ends_.near, patientTimes());
  sayHello();
  ASSERT_TRUE(channel.greet());
  EXPECT_EQ(channel.peer().version, "9.9");
  const Bytes hello = encodeFrame(helloFrame({1, kVersion}));
  EXPECT_EQ(sent(hello.size()), hello);
}

TEST_F(Channel, AnotherProtocol_EndsWithBothVersions) {
  FrameChannel channel(*ends_.near, patientTimes());
  sayHello(2);
  EXPECT_FALSE(channel.greet());
  EXPECT_EQ(channel.end(), LineEnd::kVersion);
  EXPECT_EQ(channel.describeEnd(),
            std::string("zelta-agent 9.9 there speaks version 2 of the protocol, zelta-agent ") +
                kVersion + " here version 1");
}

TEST_F(Channel, TextInsteadOfAHello_EndsWithTheText) {
  FrameChannel channel(*ends_.near, patientTimes());
  ends_.far->send({'W', 'e', 'l', 'c', 'o', 'm', 'e', '\n'});
  EXPECT_FALSE(channel.greet());
  EXPECT_EQ(channel.end(), LineEnd::kStranger);
  EXPECT_EQ(channel.describeEnd(), "what came is not zelta-agent's: 'Welcome\\x0a'");
}

TEST_F(Channel, AnotherFrameInsteadOfAHello_IsAStrangers) {
  FrameChannel channel(*ends_.near, patientTimes());
  ends_.far->send(encodeFrame({FrameKind::kCardIn, 1}));
  EXPECT_FALSE(channel.greet());
  EXPECT_EQ(channel.end(), LineEnd::kStranger);
}

TEST_F(Channel, SilenceBeforeTheHello_EndsAfterItsOwnTime) {
  FrameChannel channel(*ends_.near, {kShort, kLong, kLong});
  EXPECT_FALSE(channel.greet());
  EXPECT_EQ(channel.end(), LineEnd::kSilent);
}

TEST_F(Channel, SilenceAfterTheHello_EndsIt) {
  FrameChannel channel(*ends_.near, {kLong, kLong, kShort});
  sayHello();
  ASSERT_TRUE(channel.greet());
  EXPECT_FALSE(channel.next());
  EXPECT_EQ(channel.end(), LineEnd::kSilent);
}

TEST_F(Channel, WhoeverWaits_PingsAgainAndAgain) {
  FrameChannel channel(*ends_.near, {kLong, kShort, kLong});
  sayHello();
  ASSERT_TRUE(channel.greet());
  auto waiting = std::async(std::launch::async, [&channel] { return channel.next(); });
  Bytes expected = encodeFrame(helloFrame({1, kVersion}));
  const Bytes ping = encodeFrame({FrameKind::kPing});
  for (int i = 0; i < 3; ++i) expected.insert(expected.end(), ping.begin(), ping.end());
  Bytes bytes = sent(expected.size());
  bytes.resize(expected.size());
  EXPECT_EQ(bytes, expected);
  ends_.near->cancel();
  EXPECT_FALSE(waiting.get());
}

TEST_F(Channel, PingIsAnsweredAndPassedOver) {
  FrameChannel channel(*ends_.near, patientTimes());
  sayHello();
  ASSERT_TRUE(channel.greet());
  ends_.far->send(encodeFrame({FrameKind::kPing, 5}));
  ends_.far->send(encodeFrame({FrameKind::kPong, 6}));
  ends_.far->send(encodeFrame({FrameKind::kReady}));
  EXPECT_EQ(test::nextOf(channel).kind, FrameKind::kReady);
  Bytes expected = encodeFrame(helloFrame({1, kVersion}));
  const Bytes pong = encodeFrame({FrameKind::kPong, 5});
  expected.insert(expected.end(), pong.begin(), pong.end());
  EXPECT_EQ(sent(expected.size()), expected);
}

TEST_F(Channel, RoundTrip_IsMeasuredByAPing) {
  FrameChannel near(*ends_.near, patientTimes());
  FrameChannel far(*ends_.far, patientTimes());
  auto farEnd = std::async(std::launch::async, [&far] { return far.greet() && !far.next(); });
  ASSERT_TRUE(near.greet());
  EXPECT_TRUE(near.measureRoundTrip());
  near.send(FrameKind::kBye);
  EXPECT_TRUE(farEnd.get());
  EXPECT_EQ(far.end(), LineEnd::kBye);
}

TEST_F(Channel, LineThatEndsInTheMiddleOfAFrame_IsClosed) {
  FrameChannel channel(*ends_.near, patientTimes());
  sayHello();
  ASSERT_TRUE(channel.greet());
  Bytes half = encodeFrame({FrameKind::kAnswer, 1, Bytes(100)});
  half.resize(half.size() / 2);
  ends_.far->send(half);
  ends_.far.reset();
  EXPECT_FALSE(channel.next());
  EXPECT_EQ(channel.end(), LineEnd::kClosed);
}

TEST_F(Channel, FrameThatMakesNoSense_BreaksTheLine) {
  for (const Bytes& bytes : {Bytes{0xFF, 0xFF, 0xFF, 0xFF}, encodeFrame(helloFrame({1, "9.9"}))}) {
    test::LineEnds ends;
    FrameChannel channel(*ends.near, patientTimes());
    ends.far->send(encodeFrame(helloFrame({1, "9.9"})));
    ASSERT_TRUE(channel.greet());
    ends.far->send(bytes);
    EXPECT_FALSE(channel.next());
    EXPECT_EQ(channel.end(), LineEnd::kBroken);
  }
}

TEST_F(Channel, Cancel_EndsTheWait) {
  FrameChannel channel(*ends_.near, patientTimes());
  auto ended = std::async(std::launch::async, [&channel] { return !channel.greet(); });
  ends_.near->cancel();
  EXPECT_TRUE(ended.get());
  EXPECT_EQ(channel.end(), LineEnd::kCancelled);
}

TEST(DescriptorLine, MoreThanTheSystemTakes_ComesWholeAndInOrder) {
  test::LineEnds ends;
  Bytes all;
  for (std::uint8_t i = 0; i < 20; ++i) {
    const Bytes part(kLongestPayload, i);
    ends.near->send(part);
    all.insert(all.end(), part.begin(), part.end());
  }
  auto passing = std::async(std::launch::async, [&ends] {
    platform::SecretQueue nothing;
    return ends.near->receive(nothing, later());
  });
  platform::SecretQueue received;
  while (received.size() < all.size()) {
    ASSERT_EQ(ends.far->receive(received, later()), IoResult::kDone);
  }
  EXPECT_EQ(received.get(), all);
  ends.near->cancel();
  EXPECT_EQ(passing.get(), IoResult::kCancelled);
}

TEST(DescriptorLine, EndThatLeavesTooMuchUnread_IsClosed) {
  test::LineEnds ends;
  for (int i = 0; i < 100; ++i) ends.near->send(Bytes(kLongestPayload));
  platform::SecretQueue nothing;
  EXPECT_EQ(ends.near->receive(nothing, later()), IoResult::kClosed);
}

}  // namespace
}  // namespace zelta::agent
