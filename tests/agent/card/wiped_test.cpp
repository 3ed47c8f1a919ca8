// A command for a card, and its answer: no part of them is left in freed memory.
#include <memory>
#include <new>
#include <utility>

#include "agent/card/card_slot.h"
#include "agent/card/pcsc_card.h"
#include "agent/card/script_card.h"
#include "platform/process/wipe.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/card_notices.h"
#include "tests/doubles/agent/fake_winscard.h"
#include "tests/support/freed_memory.h"

namespace zelta::agent {
namespace {

using test::FreedMemoryWatch;
using test::kSecret;

TEST(WipedPcscCard, CommandAndItsAnswer_LeaveNoSecretInFreedMemory) {
  test::FakeWinscard service;
  test::LogLines lines;
  Log log(Severity::kDebug, lines.sink());
  test::CardNotices notices;
  auto card = std::make_unique<PcscCard>(test::kFakeReader, log);
  service.insertCard();
  card->start(notices);
  notices.waitFor("in ");
  const Bytes command(kSecret.begin(), kSecret.end());
  const FreedMemoryWatch watch(FreedMemoryWatch::Threads::kOwn);
  EXPECT_EQ(platform::SecretBytes(card->transmit(command)).get(), command);
  service.failTransmits({SCARD_E_NOT_TRANSACTED});
  EXPECT_EQ(card->transmit(command), Bytes());
  card.reset();
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

// Has room for one command.
class SmallTrace final : public TraceSink {
 public:
  bool wanted() const override { return true; }
  void take(const TraceRecord& record) override {
    if (record.kind != TraceRecord::Kind::kTransmit) return;
    if (std::exchange(full_, true)) throw std::bad_alloc();
  }

 private:
  bool full_ = false;
};

TEST(WipedCardSlot, TracedCommandAndItsAnswer_AlsoIfTheTraceFails) {
  ScriptCard card(parseScript("atr 3B00\ncommand 9E37* -> echo\n"), true);
  SmallTrace trace;
  CardSlot slot(card, {}, test::failTest, &trace);
  slot.start();
  const Command command{Command::Kind::kTransmit, Bytes(kSecret.begin(), kSecret.end()), {}, {}};
  const FreedMemoryWatch watch(FreedMemoryWatch::Threads::kOwn);
  EXPECT_EQ(slot.perform(command, slot.card()).data.size(), kSecret.size() + 2);
  EXPECT_THROW((void)slot.perform(command, slot.card()), std::bad_alloc);
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

}  // namespace
}  // namespace zelta::agent
