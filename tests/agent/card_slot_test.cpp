#include "agent/card_slot.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>

#include "tests/agent/held_card.h"
#include "tests/agent/running_agent.h"

namespace zelta::agent {
namespace {

using test::heldAnswer;
using test::HeldCard;
using Operation = CardSlot::Operation;
using Result = CardSlot::Result;

SteadyClock::time_point later() { return SteadyClock::now() + test::kLong; }

class Slot : public testing::Test {
 protected:
  Slot() : slot_(card_, test::failTest) { slot_.start(); }

  std::future<CardSlot::Answer> askInBackground() {
    return std::async(std::launch::async,
                      [this] { return slot_.ask(Operation::Transmit, {0x00}, later()); });
  }

  HeldCard card_;
  CardSlot slot_;
};

TEST_F(Slot, answersWithTheCardThatAnswered) {
  const CardSlot::Answer answer = slot_.ask(Operation::Transmit, {0x00}, later());
  EXPECT_EQ(answer.result, Result::Answered);
  EXPECT_EQ(answer.data, heldAnswer(1));
  EXPECT_EQ(answer.card, slot_.status().card);
}

TEST_F(Slot, statusHasTheAtrOfTheCardThatIsIn) {
  EXPECT_EQ(slot_.status().atr, Bytes());
  EXPECT_EQ(slot_.ask(Operation::Atr, {}, later()).data, test::heldAtr());
  EXPECT_EQ(slot_.status().atr, test::heldAtr());
  const CardId first = slot_.status().card;
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.status().atr, Bytes());
  EXPECT_EQ(slot_.status().card, kNoCard);
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_NE(slot_.status().card, first);
}

TEST_F(Slot, deadlineThatHasPassedIsLateOnlyWhereTheCardWorks) {
  card_.hold();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, SteadyClock::now()).result, Result::Late);
  card_.waitUntilBusy();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, SteadyClock::now()).result, Result::Late);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, SteadyClock::now()).result, Result::NoCard);
}

TEST_F(Slot, commandThatOnlyWaitedForTheCardNeverReachesIt) {
  card_.hold();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, SteadyClock::now()).result, Result::Late);
  card_.waitUntilBusy();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, SteadyClock::now()).result, Result::Late);
  EXPECT_EQ(slot_.ask(Operation::Reset, {}, SteadyClock::now()).result, Result::Late);
  card_.letGo();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, later()).data, heldAnswer(2));
  EXPECT_EQ(card_.resets(), 0);
}

TEST_F(Slot, removalEndsTheWaitForAnAnswer) {
  card_.hold();
  auto answer = askInBackground();
  card_.waitUntilBusy();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(answer.get().result, Result::NoCard);
}

TEST_F(Slot, swapEndsTheWaitForTheOldCardsAnswer) {
  card_.hold();
  auto answer = askInBackground();
  card_.waitUntilBusy();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(answer.get().result, Result::NoCard);
  card_.letGo();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, later()).data, heldAnswer(2));
}

TEST_F(Slot, abortEndsTheWaitAndRefusesUntilTakenBack) {
  card_.hold();
  auto answer = askInBackground();
  card_.waitUntilBusy();
  slot_.setAborted(true);
  EXPECT_EQ(answer.get().result, Result::Aborted);
  EXPECT_EQ(slot_.ask(Operation::Atr, {}, later()).result, Result::Aborted);
  slot_.setAborted(false);
  card_.letGo();
  EXPECT_EQ(slot_.ask(Operation::Transmit, {0x00}, later()).data, heldAnswer(2));
}

TEST_F(Slot, stopEndsTheWaitForGood) {
  card_.hold();
  auto answer = askInBackground();
  card_.waitUntilBusy();
  slot_.stop();
  EXPECT_EQ(answer.get().result, Result::Aborted);
  slot_.setAborted(false);
  EXPECT_EQ(slot_.ask(Operation::Atr, {}, later()).result, Result::Aborted);
}

class FailingCard : public HeldCard {
 public:
  Bytes transmit(const Bytes&) override { throw std::runtime_error("the card is broken"); }
};

TEST(FailingSlot, exceptionOfTheCardIsToldAndTheSlotCanBeStopped) {
  FailingCard card;
  std::promise<std::string> told;
  CardSlot slot(card, [&told](const char* problem) { told.set_value(problem); });
  slot.start();
  auto answer = std::async(std::launch::async,
                           [&] { return slot.ask(Operation::Transmit, {0x00}, later()); });
  EXPECT_EQ(told.get_future().get(), "the card is broken");
  slot.stop();
  EXPECT_EQ(answer.get().result, Result::Aborted);
}

class AbsentCard : public HeldCard {
 public:
  void start(CardListener&) override { throw std::runtime_error("no card"); }
  void stop() override { stopped = true; }
  bool stopped = false;
};

TEST(FailingSlot, cardThatDoesNotStartIsNotStopped) {
  AbsentCard card;
  {
    CardSlot slot(card, test::failTest);
    EXPECT_THROW(slot.start(), std::runtime_error);
  }
  EXPECT_FALSE(card.stopped);
}

class Observed final : public CardSlot::Observer {
 public:
  void observing(CardId card) override { text += card == kNoCard ? "none " : "some "; }
  void cardArrived(CardId) override { text += "in "; }
  void cardDeparted() override { text += "out "; }
  std::string text;
};

TEST_F(Slot, observerLearnsTheStateAndEachChangeWhileItObserves) {
  Observed observed;
  slot_.observe(&observed);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  slot_.observe(nullptr);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(observed.text, "some out in ");
  slot_.observe(&observed);
  EXPECT_EQ(observed.text, "some out in none ");
  slot_.observe(nullptr);
}

}  // namespace
}  // namespace zelta::agent
