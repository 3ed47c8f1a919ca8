// The reader comes back by itself, under the real pcscd and with the real agent: after pcscd stood
// still for longer than the driver's server thread waits for somebody who asks for a card, and once
// pipes that could not be made can be made.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "contract/bytes.h"
#include "tests/pcsc/pcscd_fixture.h"
#include "tests/support/child_process.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr char kStopped[] = "zelta: reader dev0 does not serve: ";
constexpr char kServes[] = "zelta: reader dev0 serves again";
constexpr std::chrono::seconds kLimit{60};

class PcscdRevivalTest : public PcscdTest {
 protected:
  PcscdRevivalTest() {
    std::ofstream(card_) << "atr 3B 95 13 81 01 00 00 00 00 00\notherwise 9000\n";
  }

  void startAgent() {
    agentProcess_ = std::make_unique<ChildProcess>(
        ZELTA_AGENT_PROGRAM,
        std::vector<std::string>{"--quiet", "--backend", "script", "--script", card_.string(),
                                 "--control", (PrivatePcscd::folder() / "agent.ctl").string()});
  }
  void killAgent() {
    agentProcess_->kill();
    EXPECT_EQ(agentProcess_->wait(), ChildProcess::kKilled);
  }
  bool logShows(const std::string& text) const {
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (pcscd_.log().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(20ms);  // a file that another process writes
    }
    return true;
  }
  void expectUsableCard() {
    ASSERT_TRUE(client_->waitForCard().has_value());
    ASSERT_EQ(client_->connect(), SCARD_S_SUCCESS);
    Bytes answer;
    EXPECT_EQ(client_->transmit({0x00, 0xA4, 0x04, 0x00}, &answer), SCARD_S_SUCCESS);
    EXPECT_EQ(client_->disconnect(), SCARD_S_SUCCESS);
  }

  const fs::path card_ = PrivatePcscd::folder() / "card.txt";
  std::unique_ptr<ChildProcess> agentProcess_;
};

TEST_F(PcscdRevivalTest, PcscdThatStoodStillAfterTheAgentWasLostServesTheNextAgent) {
  start();
  for (int round = 0; round < 3; ++round) {
    startAgent();
    expectUsableCard();
    killAgent();
    // Just after the loss: the server thread may be anywhere on its way to the next wait.
    std::this_thread::sleep_for(std::chrono::microseconds(300) * round);
    pcscd_.signal(SIGSTOP);
    std::this_thread::sleep_for(11s);  // it waits for ten
    pcscd_.signal(SIGCONT);
    ASSERT_TRUE(client_->waitForRemoval().has_value());
    startAgent();
    expectUsableCard();
    killAgent();
    ASSERT_TRUE(client_->waitForRemoval().has_value());
  }
}

TEST_F(PcscdRevivalTest, ReaderWhosePipesCannotBeMadeSaysSoAndServesOnceTheyCan) {
  const fs::path blocked = PrivatePcscd::folder() / "pipe" / "ProtectedPrefix";
  fs::remove_all(blocked);
  fs::create_directories(blocked.parent_path());
  std::ofstream(blocked) << "no folder";
  start();
  startAgent();
  ASSERT_TRUE(logShows(kStopped));
  EXPECT_EQ(client_->readers().size(), 1u);
  EXPECT_FALSE(client_->state().present);
  EXPECT_EQ(client_->connect(), SCARD_E_NO_SMARTCARD);
  EXPECT_THAT(pcscd_.log(), Not(HasSubstr(kServes)));
  fs::remove(blocked);
  ASSERT_TRUE(logShows(kServes));
  expectUsableCard();
}

TEST_F(PcscdRevivalTest, PcscdEndsPromptlyWhileItTries) {
  const fs::path blocked = PrivatePcscd::folder() / "pipe" / "ProtectedPrefix";
  fs::remove_all(blocked);
  fs::create_directories(blocked.parent_path());
  std::ofstream(blocked) << "no folder";
  start();
  ASSERT_TRUE(logShows(kStopped));
  expectPromptEnd(SIGINT);
  fs::remove(blocked);
}

}  // namespace
}  // namespace zelta::test
