#include "agent/card/card_slot.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "contract/bytes.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/held_card.h"

namespace zelta::agent {
namespace {

Command commandOf(Command::Kind kind) {
  Command command;
  command.kind = kind;
  command.apdu = Bytes{0x00};
  return command;
}

class Slot : public testing::Test {
 protected:
  Slot()
      : slot_(
            card_, [this] { ++departures_; }, test::failTest) {
    slot_.start();
  }

  test::HeldCard card_;
  int departures_ = 0;
  CardSlot slot_;
};

TEST_F(Slot, Answer_NamesTheCardThatGaveIt) {
  const Outcome outcome = slot_.perform(commandOf(Command::Kind::kTransmit), slot_.card());
  EXPECT_EQ(outcome.result, Outcome::Result::kAnswered);
  EXPECT_EQ(outcome.data.get(), test::heldAnswer(1));
  EXPECT_EQ(outcome.card, slot_.card());
}

TEST_F(Slot, AnswerOfACardThatWasSwapped_IsNone) {
  const CardId first = slot_.card();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(slot_.perform(commandOf(Command::Kind::kAtr), first).result,
            Outcome::Result::kNoAnswer);
  EXPECT_EQ(slot_.status().atr, Bytes());
}

TEST_F(Slot, Status_HasTheAtrOfTheCardThatIsIn) {
  EXPECT_EQ(slot_.status().atr, Bytes());
  EXPECT_EQ(slot_.perform(commandOf(Command::Kind::kAtr), slot_.card()).data.get(),
            test::heldAtr());
  EXPECT_EQ(slot_.status().atr, test::heldAtr());
  const CardId first = slot_.status().card;
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.status().atr, Bytes());
  EXPECT_EQ(slot_.status().card, kNoCard);
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_NE(slot_.status().card, first);
  EXPECT_EQ(departures_, 1);
}

class AbsentCard : public test::HeldCard {
 public:
  void start(CardListener&) override { throw std::runtime_error("no card"); }
  void stop() override { stopped = true; }
  bool stopped = false;
};

TEST(AbsentSlot, CardThatDoesNotStart_IsNotStopped) {
  AbsentCard card;
  {
    CardSlot slot(card, {}, test::failTest);
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

TEST_F(Slot, Observer_LearnsTheStateAndEachChangeWhileItObserves) {
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
