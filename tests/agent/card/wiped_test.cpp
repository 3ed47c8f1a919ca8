// A command for a card in a real reader, and its answer: nothing of them is left in memory that was
// given back.
#include "agent/card/pcsc_card.h"
#include "platform/process/wipe.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/card_notices.h"
#include "tests/doubles/agent/fake_winscard.h"
#include "tests/support/freed_memory.h"

namespace zelta::agent {
namespace {

using test::FreedMemoryWatch;
using test::kSecret;

TEST(WipedPcscCard, CommandAndItsAnswer) {
  test::FakeWinscard service;
  test::LogLines lines;
  Log log(Severity::kDebug, lines.sink());
  test::CardNotices notices;
  PcscCard card(test::kFakeReader, log);
  service.insertCard();
  card.start(notices);
  notices.waitFor("in ");
  const Bytes command(kSecret.begin(), kSecret.end());
  {
    const FreedMemoryWatch watch(FreedMemoryWatch::Threads::kOwn);
    EXPECT_EQ(platform::SecretBytes(card.transmit(command)).get(), command);
    EXPECT_EQ(watch.found(), 0);
    EXPECT_GT(watch.freed(), 0);
  }
  card.stop();
}

}  // namespace
}  // namespace zelta::agent
