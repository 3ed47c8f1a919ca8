#include "agent/link/command_threads.h"

#include <gtest/gtest.h>

#include <deque>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "contract/bytes.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/support/shared.h"

namespace zelta::agent {
namespace {

using Kind = Command::Kind;
using Result = Outcome::Result;
using std::chrono::milliseconds;
using test::heldAnswer;

// A test's commands and their answers. Any thread may call.
class Commands final : public CommandStream {
 public:
  // Gives a command; the card's `limit` for it begins now.
  void give(milliseconds limit = test::kLong) {
    Command command;
    command.kind = Kind::kTransmit;
    command.apdu = Bytes{0x00};
    command.cardLimit = SteadyClock::now() + limit;
    state_.lock()->given.push_back(command);
  }
  void end() { state_.lock()->ended = true; }
  // Waits for the answer with this number.
  Outcome answer(std::size_t number) {
    auto state = state_.lock();
    state.wait([number](const State& now) { return now.answers.size() >= number; });
    return state->answers[number - 1];
  }
  std::size_t answers() { return state_.lock()->answers.size(); }
  // Whether the same thread has read the last command and answered it.
  bool isAnsweredByReader() {
    const auto state = state_.lock();
    return state->reader == state->answerer;
  }

  std::optional<Command> read() override {
    auto state = state_.lock();
    state.wait([](const State& now) { return now.ended || !now.given.empty(); });
    if (state->ended) return std::nullopt;
    state->reader = std::this_thread::get_id();
    Command command = state->given.front();
    state->given.pop_front();
    return command;
  }
  bool answer(const Command&, const Outcome& outcome) override {
    const auto state = state_.lock();
    state->answerer = std::this_thread::get_id();
    state->answers.push_back(outcome);
    return true;
  }

 private:
  struct State {
    std::deque<Command> given;
    std::vector<Outcome> answers;
    bool ended = false;
    std::thread::id reader;
    std::thread::id answerer;
  };

  test::Shared<State> state_;
};

constexpr milliseconds kShort{10};

class Threads : public testing::Test {
 protected:
  Threads()
      : slot_(
            card_, [this] { threads_.cardDeparted(); }, test::failTest),
        threads_(slot_, test::kLong, test::failTest) {
    slot_.start();
    threads_.start();
    serving_ = serve(commands_);
  }
  ~Threads() override {
    commands_.end();
    card_.letGo();
    serving_.get();
    threads_.stop();
    slot_.stop();
  }

  std::future<void> serve(Commands& commands) {
    return std::async(std::launch::async, [this, &commands] { threads_.serve(commands); });
  }

  // Gives a command and holds the leader in the card.
  void giveAndHold() {
    card_.hold();
    commands_.give();
    card_.waitUntilBusy();
  }
  // Holds the card in a command that was answered for it, and returns the number of answers: on a
  // loaded machine a command's time may be over before the leader asks the card, and another
  // command is given.
  std::size_t giveAndHoldUntilLate() {
    card_.hold();
    std::size_t number = commands_.answers();
    do {
      commands_.give(kShort);
      EXPECT_EQ(commands_.answer(++number).result, Result::kLate);
    } while (!card_.isBusy());
    return number;
  }

  test::HeldCard card_;
  CardSlot slot_;
  CommandThreads threads_;
  Commands commands_;
  std::future<void> serving_;
};

TEST_F(Threads, CommandInTime_IsAnsweredByTheThreadThatReadIt) {
  for (std::uint8_t number = 1; number <= 100; ++number) {
    commands_.give();
    const Outcome outcome = commands_.answer(number);
    EXPECT_EQ(outcome.result, Result::kAnswered);
    EXPECT_EQ(outcome.data.get(), heldAnswer(number));
    EXPECT_EQ(outcome.card, slot_.card());
    EXPECT_TRUE(commands_.isAnsweredByReader());
  }
}

// The follower sleeps for longer than the late command has.
TEST_F(Threads, CardThatIsLate_IsAnsweredForAndTheNextCommandGetsItsOwnResult) {
  const std::size_t late = giveAndHoldUntilLate();
  commands_.give();
  card_.letGo();
  EXPECT_EQ(commands_.answer(late + 1).data.get(), heldAnswer(2));
  EXPECT_EQ(commands_.answers(), late + 1);
}

TEST_F(Threads, CommandThatOnlyWaitedForTheCard_NeverReachesIt) {
  const std::size_t late = giveAndHoldUntilLate();
  commands_.give(kShort);
  commands_.give(kShort);
  EXPECT_EQ(commands_.answer(late + 2).result, Result::kLate);
  card_.letGo();
  commands_.give();
  EXPECT_EQ(commands_.answer(late + 3).data.get(), heldAnswer(2));
}

TEST_F(Threads, CommandWhoseTimeIsOver_NeverReachesTheCard) {
  commands_.give(milliseconds(0));
  EXPECT_EQ(commands_.answer(1).result, Result::kLate);
  commands_.give();
  EXPECT_EQ(commands_.answer(2).data.get(), heldAnswer(1));
}

TEST_F(Threads, RemovalDuringACallThatDoesNotReturn_IsAnsweredWithoutACard) {
  giveAndHold();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(commands_.answer(1).result, Result::kNoAnswer);
}

TEST_F(Threads, RemovalWhileACommandWaitsForTheCard_IsAnsweredWithoutACard) {
  const std::size_t late = giveAndHoldUntilLate();
  commands_.give();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(commands_.answer(late + 1).result, Result::kNoAnswer);
}

TEST_F(Threads, SwapDuringACall_IsAnsweredWithoutACardAndTheNewOneServed) {
  giveAndHold();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(commands_.answer(1).result, Result::kNoAnswer);
  card_.letGo();
  commands_.give();
  EXPECT_EQ(commands_.answer(2).data.get(), heldAnswer(2));
}

TEST_F(Threads, AbandonDuringACall_EndsServingAtOnceAndTheNextStreamIsServed) {
  giveAndHold();
  threads_.abandon(commands_);
  serving_.get();
  Commands next;
  serving_ = serve(next);
  next.give(kShort);
  EXPECT_EQ(next.answer(1).result, Result::kLate);  // the card is busy with the old one's command
  card_.letGo();
  next.give();
  EXPECT_EQ(next.answer(2).data.get(), heldAnswer(2));
  EXPECT_EQ(commands_.answers(), 0u);
  next.end();
  serving_.wait();
}

TEST_F(Threads, AbandonWhileACommandWaitsForTheCard_EndsServingAtOnce) {
  const std::size_t late = giveAndHoldUntilLate();
  commands_.give();
  threads_.abandon(commands_);
  commands_.end();  // for a leader that has not asked for the card yet
  serving_.wait();
  EXPECT_EQ(commands_.answers(), late);
}

TEST_F(Threads, StopDuringACall_InterruptsTheCard) {
  giveAndHold();
  threads_.abandon(commands_);
  threads_.stop();
  EXPECT_EQ(commands_.answers(), 0u);
}

TEST(FailingThreads, ExceptionOfTheCard_IsToldAndEndsServing) {
  test::HeldCard card;
  card.breakDown();
  CardSlot slot(card, {}, test::failTest);
  std::promise<std::string> told;
  CommandThreads threads(slot, test::kLong,
                         [&told](const char* problem) { told.set_value(problem); });
  slot.start();
  threads.start();
  Commands commands;
  commands.give();
  threads.serve(commands);
  EXPECT_EQ(told.get_future().get(), "the card is broken");
  threads.stop();
}

}  // namespace
}  // namespace zelta::agent
