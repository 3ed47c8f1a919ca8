// The most memory that an answer of a quarter of a gigabyte costs the driver: its size once, and
// far less if the caller has no room for it.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include "contract/io_controls.h"
#include "contract/wire.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/agent/card_agent.h"

namespace zelta::test {
namespace {

constexpr std::size_t kBlock = 1024 * 1024;
constexpr std::size_t kBlocks = 260;
constexpr std::size_t kLarge = kBlocks * kBlock;
constexpr std::chrono::seconds kPatience{60};

// The growth of the process's peak memory since this was made, in bytes.
class PeakGrowth {
 public:
  PeakGrowth() {
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins anew
    before_ = peak();
  }
  std::size_t bytes() const { return peak() - before_; }

 private:
  static std::size_t peak() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
      std::size_t kibibytes = 0;
      if (word == "VmHWM:" && status >> kibibytes) return kibibytes * 1024;
    }
    ADD_FAILURE() << "the system does not tell the peak";
    return 0;
  }

  std::size_t before_ = 0;
};

// The agent sends its long answers from its own single block.
class PeakMemory : public LinkTest {
 protected:
  void SetUp() override {
    AgentLinkTimes times;
    times.query = kPatience;
    start(times);
    FakeRequest& insertion = waitForInsertion();
    ASSERT_TRUE(agent_.connectSilently());
    serving_ = std::thread([this] { serve(); });
    ASSERT_TRUE(insertion.waitCompleted());
  }
  ~PeakMemory() override {
    agent_.events().close();
    if (serving_.joinable()) serving_.join();
  }

  std::atomic<bool> longAtr_{false};

 private:
  void sendLong() {
    ASSERT_TRUE(agent_.command().writeNumber(kLarge));
    for (std::size_t i = 0; i < kBlocks; ++i) ASSERT_TRUE(agent_.command().write(block_));
  }

  void serve() {
    PipeClient& pipe = agent_.command();
    while (const std::optional<std::uint32_t> code = pipe.readNumber()) {
      switch (static_cast<AgentCommand>(*code)) {
        case AgentCommand::kQueryTransmit:
          pipe.read(pipe.readNumber().value_or(0));
          sendLong();
          break;
        case AgentCommand::kNotifyCardReady:
          break;
        default:
          if (longAtr_) {
            sendLong();
            break;
          }
          pipe.write(number(2, CardAgent::atrOfT0()));
      }
    }
  }

  const Bytes block_ = Bytes(kBlock, 0x5A);
  CardAgent agent_;
  std::thread serving_;
};

TEST_F(PeakMemory, LongResponse_IsHeldOnce) {
  ResponseBuffer response;
  const PeakGrowth growth;
  EXPECT_EQ(reader().QueryTransmit({0, 1, 2, 3}, response), QueryResult::kSuccess);
  EXPECT_EQ(response.size(), kLarge);
  EXPECT_EQ(response.data()[kLarge - 1], 0x5A);
  EXPECT_GT(growth.bytes(), kLarge / 2);
  EXPECT_LT(growth.bytes(), kLarge + kLarge / 2);
}

TEST_F(PeakMemory, LongAtr_IsHeldOnce) {
  longAtr_ = true;
  Bytes atr;
  const PeakGrowth growth;
  EXPECT_EQ(reader().QueryAtr(atr, false), QueryResult::kSuccess);
  EXPECT_EQ(atr.size(), kLarge);
  EXPECT_EQ(atr.back(), 0x5A);
  EXPECT_GT(growth.bytes(), kLarge / 2);
  EXPECT_LT(growth.bytes(), kLarge + kLarge / 2);
}

TEST_F(PeakMemory, LongAtrThatIsOnlyChecked_IsReadAndNotHeld) {
  longAtr_ = true;
  const PeakGrowth growth;
  EXPECT_EQ(reader().CheckATR(), QueryResult::kSuccess);
  EXPECT_LT(growth.bytes(), kLarge / 8);
}

TEST_F(PeakMemory, ResponseThatTheCallerHasNoRoomFor_IsReadAndNotHeld) {
  const std::size_t capacity = kTransmitHeaderSize + 65536 + 2;
  const Bytes header = {0, 0, 0, 0, kTransmitHeaderSize, 0, 0, 0};
  for (int round = 0; round < 2; ++round) {  // the second finds nothing of the first
    FakeRequest request(device_);
    Bytes input = header;
    input.insert(input.end(), {0, 1, 2, 3});
    request.withInput(input).withOutput(capacity);
    const PeakGrowth growth;
    reader().IoSmartCardTransmit(&request, input.size(), capacity);
    EXPECT_LT(growth.bytes(), kLarge / 8);
    EXPECT_EQ(request.status(), kSucceeded);
    EXPECT_EQ(request.information(), kTransmitHeaderSize + kLarge);
    EXPECT_FALSE(request.outputWritten());
  }
}

}  // namespace
}  // namespace zelta::test
