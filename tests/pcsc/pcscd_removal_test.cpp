// A card that leaves under the real pcscd while a client's command is under way.
#include <gtest/gtest.h>

#include <future>

#include "contract/wire.h"
#include "tests/pcsc/pcscd_fixture.h"

namespace zelta::test {
namespace {

const Bytes kSelect{0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0};

class PcscdRemovalTest : public PcscdTest {};

TEST_F(PcscdRemovalTest, RemovalDuringACommandEndsItAndMarksTheHandle) {
  startWithCard();
  const unsigned before = client_->state().counter;
  std::promise<void> running;
  std::promise<void> removed;
  agent_.respond([&](const Bytes&) {
    running.set_value();
    removed.get_future().wait();
    return Bytes();  // as an agent answers for a card that was pulled
  });
  auto sent = std::async(std::launch::async, [this] {
    Bytes answer;
    return client_->transmit(kSelect, &answer);
  });
  running.get_future().wait();
  agent_.remove();
  removed.set_value();
  const LONG result = sent.get();
  EXPECT_TRUE(result == SCARD_E_NO_SMARTCARD || result == SCARD_W_REMOVED_CARD)
      << std::hex << result;
  // pcscd shows an empty reader at once after such an answer; the handle is marked by the event.
  ASSERT_TRUE(client_->waitFor(
      [&](const Client::State& now) { return !now.present && now.counter == before + 1; }));
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_W_REMOVED_CARD);
  agent_.respond(nullptr);
  agent_.insert();
  ASSERT_TRUE(client_->waitForCard().has_value());
  EXPECT_EQ(client_->reconnect(), SCARD_S_SUCCESS);
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

// The driver itself waits five more seconds for the answer.
TEST_F(PcscdRemovalTest, CommandThatAnAgentLeavesUnansweredEndsWithTheRemovalToo) {
  startWithCard();
  const unsigned before = client_->state().counter;
  agent_.ignore(AgentCommand::kQueryTransmit, 1);
  auto sent = std::async(std::launch::async, [this] {
    Bytes answer;
    return client_->transmit(kSelect, &answer);
  });
  ASSERT_TRUE(agent_.waitForCommands(AgentCommand::kQueryTransmit, 1));
  agent_.remove();
  const LONG result = sent.get();
  EXPECT_TRUE(result == SCARD_E_NO_SMARTCARD || result == SCARD_W_REMOVED_CARD)
      << std::hex << result;
  ASSERT_TRUE(client_->waitFor(
      [&](const Client::State& now) { return !now.present && now.counter == before + 1; }));
  agent_.insert();
  ASSERT_TRUE(client_->waitForCard().has_value());
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_W_REMOVED_CARD);
  EXPECT_EQ(client_->reconnect(), SCARD_S_SUCCESS);
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

TEST_F(PcscdRemovalTest, AgentThatDiesDuringACommandEndsIt) {
  startWithCard();
  std::promise<void> running;
  std::promise<void> died;
  agent_.respond([&](const Bytes&) {
    running.set_value();
    died.get_future().wait();
    return Bytes();
  });
  auto sent = std::async(std::launch::async, [this] {
    Bytes answer;
    return client_->transmit(kSelect, &answer);
  });
  running.get_future().wait();
  agent_.events().close();
  const LONG result = sent.get();
  EXPECT_TRUE(result == SCARD_E_NO_SMARTCARD || result == SCARD_W_REMOVED_CARD)
      << std::hex << result;
  died.set_value();
  agent_.respond(nullptr);
  ASSERT_TRUE(agent_.connect());
  ASSERT_TRUE(client_->waitForCard().has_value());
  ASSERT_EQ(client_->reconnect(), SCARD_S_SUCCESS);
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

}  // namespace
}  // namespace zelta::test
