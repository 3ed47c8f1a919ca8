#include "agent/card/script_card.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "contract/bytes.h"
#include "tests/doubles/agent/card_notices.h"

namespace zelta::agent {
namespace {

// A started card that plays a script.
struct Started {
  explicit Started(const std::string& text, bool cardIn = true) : card(parseScript(text), cardIn) {
    card.start(notices);
  }
  ~Started() { card.stop(); }

  test::CardNotices notices;
  ScriptCard card;
};

TEST(ScriptCard, FailureOfItsTimer_IsToldAndItCanBeStopped) {
  test::FailingNotices listener;
  ScriptCard card(parseScript("atr 3B00\nat 1ms insert\n"), false);
  card.start(listener);
  EXPECT_EQ(listener.told(), "no memory for the card");
  card.stop();
}

TEST(ScriptCard, Commands_AreAnsweredFromTheScript) {
  Started started("atr 3B00\ncommand 00A4* -> 9000");
  EXPECT_EQ(started.card.name(), "script");
  EXPECT_EQ(started.card.reset(), (Bytes{0x3B, 0x00}));
  EXPECT_EQ(started.card.atr(), (Bytes{0x3B, 0x00}));
  EXPECT_EQ(started.card.transmit({0x00, 0xA4, 0x04, 0x00}), (Bytes{0x90, 0x00}));
  EXPECT_EQ(started.card.transmit({0x01}), (Bytes{0x6D, 0x00}));
  EXPECT_EQ(started.notices.text(), "in ");
}

TEST(ScriptCard, WithoutACard_NothingIsAnswered) {
  Started started("atr 3B00", false);
  EXPECT_EQ(started.notices.text(), "");
  EXPECT_EQ(started.card.reset(), Bytes());
  EXPECT_EQ(started.card.transmit({0x01}), Bytes());
}

TEST(ScriptCard, InsertionAndRemoval_AreToldInTurnsAndOnce) {
  Started started("atr 3B00");
  EXPECT_EQ(started.card.insert(), "a card is in already");
  EXPECT_EQ(started.card.remove(), "");
  EXPECT_EQ(started.card.remove(), "no card is in");
  EXPECT_EQ(started.card.insert(), "");
  EXPECT_EQ(started.notices.text(), "in out in ");
}

TEST(ScriptCard, InsertionWhileTheRemovalIsTold_WaitsForThat) {
  struct Notices : test::CardNotices {
    void cardRemoved() override {
      told.set_value();
      goOn.get_future().wait();
      CardNotices::cardRemoved();
    }
    std::promise<void> told;
    std::promise<void> goOn;
  };
  Notices notices;
  ScriptCard card(parseScript("atr 3B00"), true);
  card.start(notices);
  auto removed = std::async(std::launch::async, [&card] { return card.remove(); });
  notices.told.get_future().wait();
  auto inserted = std::async(std::launch::async, [&card] { return card.insert(); });
  EXPECT_EQ(inserted.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  notices.goOn.set_value();
  EXPECT_EQ(removed.get(), "");
  EXPECT_EQ(inserted.get(), "");
  EXPECT_EQ(notices.text(), "in out in ");
  card.stop();
}

TEST(ScriptCard, Removal_EndsACommandAtOnce) {
  Started started("atr 3B00\ncommand 01 -> 9000 after 1000s\non 01 remove");
  EXPECT_EQ(started.card.transmit({0x01}), Bytes());
  EXPECT_EQ(started.notices.text(), "in out ");
}

TEST(ScriptCard, Interrupt_EndsACommandAtOnce) {
  Started started("atr 3B00 after 1000s");
  std::future<Bytes> atr = std::async(std::launch::async, [&] { return started.card.reset(); });
  started.card.interrupt();
  EXPECT_EQ(atr.get(), Bytes());
}

TEST(ScriptCard, TimedEvents_HappenInOrderOfTime) {
  Started started("atr 3B00\nat 20ms insert\nat 1ms remove\nat 30ms remove");
  started.notices.waitFor("in out in out ");
}

TEST(ScriptCard, ResetAtrAndReady_TriggerEvents) {
  Started started("atr 3B00\non reset remove\non ready insert\non atr remove after 1ms");
  started.card.reset();
  started.notices.waitFor("in out ");
  started.card.ready();
  started.notices.waitFor("in out in ");
  started.card.atr();
  started.notices.waitFor("in out in out ");
}

}  // namespace
}  // namespace zelta::agent
