// Lengths for which there is no memory: a failed query, not an ended process.
#include <gtest/gtest.h>

#include "contract/bytes.h"
#include "platform/process/error.h"
#include "tests/agent_link/scripted_link.h"
#include "tests/support/scarce_memory.h"

namespace zelta::test {
namespace {

using Records = std::vector<LogRecord>;

constexpr std::uint32_t kNoMemory = platform::error::kNotEnoughMemory;
constexpr std::uint32_t kAnnounced = 0xFFFFFFFF;
constexpr std::size_t kOneBlock = 3 * PipeStream::kReadBlock / 2;  // and not two

class Memory : public ScriptedLink {
 protected:
  // The agent announces 4 GiB and sends three blocks of them; memory ends after the first.
  ScarceMemory startWithLittleMemory(std::size_t largest = kOneBlock) {
    startAccepted();
    agentAnswers(number(kAnnounced, Bytes(3 * PipeStream::kReadBlock)));
    return ScarceMemory::above(largest);
  }

  // The rest of the answer is still in the pipe. It must not be taken for another answer.
  void expectConnectionEnded() {
    EXPECT_EQ(pipes_.calls(PipeCallKind::kDisconnect).size(), 1u);
    forgetCalls();
    log_.clear();
    EXPECT_EQ(reader().QueryAtr(bytes_, false), QueryResult::kFailure);
    EXPECT_EQ(log_.records(), Records{error(platform::error::kBrokenPipe,
                                            "[QueryATR]Failed to write ATR request command")});
    EXPECT_TRUE(trace().empty());
  }

  Bytes bytes_;
};

TEST_F(Memory, AtrThatDoesNotFitFailsTheQuery) {
  const auto memory = startWithLittleMemory();
  EXPECT_EQ(reader().QueryAtr(bytes_, true), QueryResult::kFailure);
  EXPECT_TRUE(bytes_.empty());
  EXPECT_EQ(log_.records(),
            Records{error(kNoMemory, "[QueryATR]No memory for ATR of size 4294967295")});
  expectConnectionEnded();
}

TEST_F(Memory, AtrThatIsNotEvenBegunFailsTheCheck) {
  const auto memory = startWithLittleMemory(PipeStream::kReadBlock / 2);
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_EQ(log_.records(),
            Records{error(kNoMemory, "[CheckATR]No memory for ATR of size 4294967295")});
  expectConnectionEnded();
}

TEST_F(Memory, AtrThatDoesNotFitIsCheckedNevertheless) {
  startAccepted();
  const std::uint32_t length = 3 * PipeStream::kReadBlock;
  agentAnswers(number(length, Bytes(length)));
  agentAnswers(number(2, {0x3B, 0x00}));
  const auto memory = ScarceMemory::above(kOneBlock);
  EXPECT_EQ(reader().CheckATR(), QueryResult::kSuccess);
  EXPECT_EQ(reader().QueryAtr(bytes_, false), QueryResult::kSuccess);
  EXPECT_EQ(bytes_, (Bytes{0x3B, 0x00}));
}

TEST_F(Memory, ResponseThatDoesNotFitFailsTheTransmit) {
  const auto memory = startWithLittleMemory();
  makeCardPresent();
  log_.clear();
  EXPECT_EQ(queryTransmit({0, 1, 2, 3}, bytes_), QueryResult::kFailure);
  EXPECT_TRUE(bytes_.empty());
  EXPECT_EQ(log_.records(),
            Records{error(kNoMemory, "[QueryTransmit]No memory for APDU response")});
  expectConnectionEnded();
}

TEST_F(Memory, ResponseThatDoesNotFitIsNotAcceptedOnceTheCardIsGone) {
  const auto memory = startWithLittleMemory();
  EXPECT_EQ(queryTransmit({0, 1, 2, 3}, bytes_), QueryResult::kSuccess);
  EXPECT_EQ(bytes_, (Bytes{0x69, 0x01}));
  expectConnectionEnded();
}

TEST_F(Memory, LongSessionLogIdIsReadWithLittleMemory) {
  pipes_.fail(PipeCallKind::kWrite, platform::error::kPipeListening, 1, 9);
  startCreated();
  const Bytes id = number(2, number(PipeStream::kReadBlock, Bytes(PipeStream::kReadBlock)));
  agentReports(id);
  agentReports(number(7));
  const auto memory = ScarceMemory::above(64 * 1024);
  waitForInsertion();
  ASSERT_TRUE(log_.waitFor("Unknown event received:7"));
  EXPECT_TRUE(log_.contains(error(static_cast<std::uint32_t>(-501),
                                  "Session log ID size is 1048576. Session log ID not set")));
  EXPECT_TRUE(log_.sessionIds().empty());
}

// Bytes that have not arrived are not allocated: at most one block more than arrived.
TEST_F(Memory, AnnouncedLengthIsNotTakenAtItsWord) {
  startAccepted();
  const auto memory = ScarceMemory::above(kOneBlock);
  pipes_.fail(PipeCallKind::kRead, platform::error::kBrokenPipe, 2, 1);
  agentAnswers(number(kAnnounced));
  EXPECT_EQ(reader().QueryAtr(bytes_, true), QueryResult::kFailure);
  EXPECT_EQ(log_.records(),
            Records{error(platform::error::kBrokenPipe, "[QueryATR]Failed to read ATR data")});
  EXPECT_EQ(bytes_.size(), PipeStream::kReadBlock);
}

}  // namespace
}  // namespace zelta::test
