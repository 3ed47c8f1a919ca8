// A card that is served through the library's public header.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zelta/agent.h>

#include <future>
#include <stdexcept>

#include "contract/wire.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/driver_end.h"

namespace zelta::test {
namespace {

const Bytes kAtr = {0x3B, 0x00};
const Bytes kEcho = {0x00, 0xCA, 0x00, 0x00};
const Bytes kFault = {0x00, 0xEE, 0x00, 0x00};

// Answers with the number of its resets and the command.
class EchoCard : public Card {
 public:
  explicit EchoCard(bool isIn = true) : Card(isIn) {}

  Bytes atr() override { return kAtr; }
  void reset() override { ++resets_; }
  Bytes transmit(const Bytes& command) override {
    if (command == kFault) throw std::runtime_error("the card is broken");
    Bytes response = {resets_};
    response.insert(response.end(), command.begin(), command.end());
    return response;
  }
  void ready() override { ready_.set_value(); }

  std::future<void> isReady() { return ready_.get_future(); }

 private:
  std::uint8_t resets_ = 0;
  std::promise<void> ready_;
};

class AgentLibrary : public testing::Test {
 protected:
  // Serves on a separate thread; returns the future of `serve`.
  static std::future<void> start(Card& card) {
    ServeOptions options;
    options.sessionId = kSession;
    return std::async(std::launch::async, [&card, options] { serve(card, options); });
  }

  PipeFolder folder_;
};

TEST_F(AgentLibrary, CardThatIsIn_IsResetAndAnswers) {
  DriverEnd driver;
  EchoCard card;
  auto ready = card.isReady();
  auto served = start(card);
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), kAtr);
  EXPECT_TRUE(driver.notifyReady());
  ready.get();
  EXPECT_EQ(driver.transmit(kEcho), (Bytes{0x01, 0x00, 0xCA, 0x00, 0x00}));
  card.stop();
  served.get();
}

TEST_F(AgentLibrary, InsertionAndRemoval_AreReportedOnce) {
  DriverEnd driver;
  EchoCard card(false);
  EXPECT_FALSE(card.remove());
  auto served = start(card);
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  EXPECT_TRUE(card.insert());
  EXPECT_FALSE(card.insert());
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_TRUE(card.remove());
  EXPECT_FALSE(card.remove());
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), Bytes());
  card.stop();
  served.get();
}

TEST_F(AgentLibrary, StopBeforeServing_EndsAtOnce) {
  EchoCard card;
  card.stop();
  serve(card);
  EXPECT_TRUE(card.remove()) << "a card that is not served keeps its state";
}

TEST_F(AgentLibrary, StopWithoutADriver_EndsServing) {
  EchoCard card;
  auto served = start(card);
  card.stop();
  served.get();
}

TEST_F(AgentLibrary, ExceptionOfTheCard_EndsServingWithItsText) {
  DriverEnd driver;
  EchoCard card;
  auto served = start(card);
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_TRUE(driver.sendTransmit(kFault));
  EXPECT_THAT([&] { served.get(); },
              testing::ThrowsMessage<std::runtime_error>("the card is broken"));
}

TEST_F(AgentLibrary, Log_GoesToTheCallerLineByLine) {
  std::vector<std::string> lines;
  EchoCard card;
  ServeOptions options;
  options.log = [&](const std::string& line) {
    lines.push_back(line);
    if (lines.size() == 1) card.stop();
  };
  serve(card, options);
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines.front().find("Waiting for the driver"), std::string::npos) << lines.front();
}

}  // namespace
}  // namespace zelta::test
