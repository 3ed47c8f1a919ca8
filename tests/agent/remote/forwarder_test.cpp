#include "agent/remote/forwarder.h"

#include <signal.h>

#include <deque>
#include <future>

#include "tests/agent/remote/line_fixture.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/support/shared.h"

namespace zelta::agent {
namespace {

using test::HeldCard;
using test::kLong;
using test::nextOf;

const Bytes kApdu = {0x00, 0xA4, 0x04, 0x00};

// Lets the test play the far end of each line that is dialed.
class TestDialer final : public Dialer {
 public:
  std::unique_ptr<DialedCall> dial() override {
    test::LineEnds ends;
    const auto state = state_.lock();
    state->farEnds.push_back(std::move(ends.far));
    return std::make_unique<Call>(std::move(ends.near), state->exitCode);
  }

  // The far end of the next line.
  std::unique_ptr<Line> accept() {
    auto state = state_.lock();
    state.wait([](const State& now) { return !now.farEnds.empty(); });
    std::unique_ptr<Line> line = std::move(state->farEnds.front());
    state->farEnds.pop_front();
    return line;
  }
  // Sets the exit code of later calls.
  void setExitCode(int code) { state_.lock()->exitCode = code; }

 private:
  class Call final : public DialedCall {
   public:
    Call(std::unique_ptr<Line> line, int exitCode) : line_(std::move(line)), exitCode_(exitCode) {}
    Line& line() override { return *line_; }
    int hangUp() override {
      line_.reset();
      return exitCode_;
    }

   private:
    std::unique_ptr<Line> line_;
    const int exitCode_;
  };

  struct State {
    std::deque<std::unique_ptr<Line>> farEnds;
    int exitCode = 0;
  };

  test::Shared<State> state_;
};

// The far end of one line, played by the test.
struct FarEnd {
  explicit FarEnd(std::unique_ptr<Line> dialed)
      : line(std::move(dialed)), channel(*line, test::patientTimes()) {}

  // Waits until the near end knows the round trip and has reported a card.
  void greet(std::uint32_t card) {
    ASSERT_TRUE(channel.greet()) << channel.describeEnd();
    const Frame frame = nextOf(channel);
    EXPECT_EQ(frame.kind, FrameKind::kCardIn);
    EXPECT_EQ(frame.number, card);
  }
  void ask(FrameKind kind, std::uint32_t number, std::uint32_t card, const Bytes& apdu = {}) {
    channel.send(kind, number, test::forCard(card, apdu));
  }
  void expectAnswer(std::uint32_t number, const Bytes& bytes) {
    const Frame frame = nextOf(channel);
    EXPECT_EQ(frame.kind, FrameKind::kAnswer);
    EXPECT_EQ(frame.number, number);
    EXPECT_EQ(frame.payload.get(), bytes);
  }

  std::unique_ptr<Line> line;
  FrameChannel channel;
};

class Forwarding : public testing::Test {
 protected:
  ~Forwarding() override { end(); }

  void run(std::chrono::milliseconds retry = std::chrono::milliseconds(1),
           std::chrono::milliseconds answerLimit = kLong) {
    Forwarder::Settings settings;
    settings.place = "there";
    settings.card = {test::patientTimes(), answerLimit};
    settings.firstRetry = retry;
    settings.longestRetry = retry;
    settings.onFailure = test::failTest;
    forwarder_.emplace(dialer_, card_, settings, log_);
    forwarder_->start();
    running_ = std::async(std::launch::async, [this] { forwarder_->run(); });
  }
  void end() {
    if (!running_.valid()) return;
    forwarder_->stop();
    running_.get();
  }
  void expectFailure(const testing::Matcher<std::string>& text) {
    EXPECT_THAT([this] { running_.get(); }, testing::ThrowsMessage<std::runtime_error>(text));
  }

  HeldCard card_;
  TestDialer dialer_;
  test::LogLines lines_;
  Log log_{Severity::kDebug, lines_.sink()};
  std::optional<Forwarder> forwarder_;
  std::future<void> running_;
};

TEST_F(Forwarding, Requests_AreAnsweredByTheCard) {
  run();
  FarEnd far(dialer_.accept());
  far.greet(1);
  far.ask(FrameKind::kReset, 1, 1);
  far.expectAnswer(1, test::heldAtr());
  far.ask(FrameKind::kTransmit, 2, 1, kApdu);
  far.expectAnswer(2, test::heldAnswer(1));
  far.ask(FrameKind::kAtr, 3, 1);
  far.expectAnswer(3, test::heldAtr());
  far.channel.send(FrameKind::kReady);
  far.ask(FrameKind::kTransmit, 4, 1, kApdu);
  far.expectAnswer(4, test::heldAnswer(2));
  EXPECT_EQ(card_.resets(), 1);
  EXPECT_EQ(card_.readyNotices(), 1);
  EXPECT_TRUE(lines_.has("info: Connected to zelta-agent"));
}

TEST_F(Forwarding, RequestForACardThatHasLeft_DoesNotReachTheNext) {
  run();
  FarEnd far(dialer_.accept());
  far.greet(1);
  EXPECT_EQ(forwarder_->removeCard(), "");
  EXPECT_EQ(forwarder_->insertCard(), "");
  EXPECT_NE(forwarder_->insertCard(), "");
  EXPECT_TRUE(lines_.has("info: Card removed"));
  EXPECT_TRUE(lines_.has("info: Card not inserted: a card is in already"));
  EXPECT_EQ(nextOf(far.channel).kind, FrameKind::kCardOut);
  EXPECT_EQ(nextOf(far.channel).number, 2u);
  far.ask(FrameKind::kTransmit, 1, 1, kApdu);
  far.expectAnswer(1, {});
  far.ask(FrameKind::kTransmit, 2, 2, kApdu);
  far.expectAnswer(2, test::heldAnswer(1));
}

TEST_F(Forwarding, LineThatBreaksDuringACommand_IsDialedAgainAndServed) {
  run();
  card_.hold();
  {
    FarEnd far(dialer_.accept());
    far.greet(1);
    far.ask(FrameKind::kTransmit, 1, 1, kApdu);
    card_.waitUntilBusy();
  }
  card_.letGo();
  FarEnd far(dialer_.accept());
  far.greet(1);
  far.ask(FrameKind::kTransmit, 1, 1, kApdu);
  far.expectAnswer(1, test::heldAnswer(2));
  EXPECT_TRUE(lines_.has("warning: there: the line is broken; calling again in 1.0 ms"));
}

TEST_F(Forwarding, CardThatHangs_IsAnsweredForAndTheLineGoesOn) {
  run(std::chrono::milliseconds(1), std::chrono::milliseconds(20));
  FarEnd far(dialer_.accept());
  far.greet(1);
  card_.hold();
  far.ask(FrameKind::kTransmit, 1, 1, kApdu);
  far.expectAnswer(1, {});
  far.channel.send(FrameKind::kReady);
  lines_.waitFor("warning: Transmit: the card is not done in time");
  card_.letGo();
}

TEST_F(Forwarding, FrameThatMakesNoSense_EndsTheLineAndIsFollowedByTheNext) {
  run();
  {
    FarEnd far(dialer_.accept());
    far.greet(1);
    far.channel.send(FrameKind::kTransmit, 1, Bytes{0x01});
    EXPECT_FALSE(far.channel.next());
  }
  FarEnd again(dialer_.accept());
  again.greet(1);
  EXPECT_TRUE(lines_.has("there: what came makes no sense"));
}

TEST_F(Forwarding, Stop_SaysByeAndEnds) {
  run();
  FarEnd far(dialer_.accept());
  far.greet(1);
  end();
  EXPECT_FALSE(far.channel.next());
  EXPECT_EQ(far.channel.end(), LineEnd::kBye);
}

TEST_F(Forwarding, StopDuringTheWaitForTheNextCall_Ends) {
  dialer_.setExitCode(kSshFailed);
  run(kLong);
  dialer_.accept().reset();
  lines_.waitFor("warning: ssh does not reach there; calling again in 60000.0 ms");
  end();
}

TEST_F(Forwarding, AgentThatEndsBeforeItsHello_IsCalledAgain) {
  dialer_.setExitCode(1);
  run();
  dialer_.accept().reset();
  dialer_.accept().reset();
  lines_.waitFor("warning: zelta-agent on there has ended with 1; calling again");
}

TEST_F(Forwarding, WhatTimeDoesNotCure_EndsTheProgram) {
  dialer_.setExitCode(kSshNoProgram);
  run();
  dialer_.accept().reset();
  expectFailure("there: zelta-agent is not installed there, or not in the PATH");
}

TEST_F(Forwarding, AnotherVersion_EndsTheProgram) {
  run();
  const std::unique_ptr<Line> far = dialer_.accept();
  far->send(encodeFrame(helloFrame({2, "9.9"})));
  expectFailure(testing::StartsWith("there: zelta-agent 9.9 there speaks version 2"));
}

TEST_F(Forwarding, TextOfAShell_EndsTheProgram) {
  run();
  const std::unique_ptr<Line> far = dialer_.accept();
  far->send({'H', 'e', 'l', 'l', 'o', '!'});
  expectFailure(
      "there: what came is not zelta-agent's: 'Hello!'; the shell there must print nothing "
      "for a command");
}

std::unique_ptr<DialedCall> dialShell(const char* script) {
  return makeSshDialer({"/bin/sh", "-c", script})->dial();
}

TEST(SshDialer, Line_IsTheProgramsInputAndOutput) {
  const auto call = dialShell("head -c 3; exit 7");
  call->line().send({1, 2, 3});
  platform::SecretQueue bytes;
  while (bytes.size() < 3) {
    ASSERT_EQ(call->line().receive(bytes, test::later()), IoResult::kDone);
  }
  EXPECT_EQ(bytes.get(), (Bytes{1, 2, 3}));
  EXPECT_EQ(call->line().receive(bytes, test::later()), IoResult::kClosed);
  EXPECT_EQ(call->hangUp(), 7);
}

TEST(SshDialer, HangingUp_EndsAProgramThatFollowsItsInput) {
  EXPECT_EQ(dialShell("cat; exit 3")->hangUp(), 3);
}

TEST(SshDialer, HangingUp_EndsAProgramThatDoesNot) {
  EXPECT_EQ(dialShell("exec sleep 1000")->hangUp(), 128 + SIGTERM);
}

TEST(SshDialer, MissingProgram_IsNamed) {
  EXPECT_THAT([] { makeSshDialer({"/nowhere/ssh"})->dial(); },
              testing::ThrowsMessage<std::runtime_error>(
                  "cannot start /nowhere/ssh: No such file or directory"));
}

}  // namespace
}  // namespace zelta::agent
