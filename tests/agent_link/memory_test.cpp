// Lengths for which there is no memory: a failed query, not an ended process. This program's own
// operator new refuses blocks above a limit.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

#include "contract/bytes.h"
#include "platform/process/error.h"
#include "tests/agent_link/scripted_link.h"

namespace {

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> largestBlock{kNoLimit};  // bytes

}  // namespace

void* operator new(std::size_t size) {
  void* const block = size > largestBlock ? nullptr : std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return size > largestBlock ? nullptr : std::malloc(size);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace zelta::test {
namespace {

using Records = std::vector<LogRecord>;

constexpr std::uint32_t kNoMemory = platform::error::kNotEnoughMemory;
constexpr std::uint32_t kAnnounced = 0xFFFFFFFF;

class Memory : public ScriptedLink {
 protected:
  ~Memory() override { largestBlock = kNoLimit; }

  // The agent announces 4 GiB and sends three blocks of them; memory ends after the first.
  void startWithLittleMemory() {
    startAccepted();
    agentAnswers(number(kAnnounced, Bytes(3 * PipeStream::kReadBlock)));
    largestBlock = 3 * PipeStream::kReadBlock / 2;
  }

  // The rest of the answer is still in the pipe. It must not be taken for another one.
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
  startWithLittleMemory();
  EXPECT_EQ(reader().QueryAtr(bytes_, true), QueryResult::kFailure);
  EXPECT_TRUE(bytes_.empty());
  EXPECT_EQ(log_.records(),
            Records{error(kNoMemory, "[QueryATR]No memory for ATR of size 4294967295")});
  expectConnectionEnded();
}

TEST_F(Memory, AtrThatIsNotEvenBegunFailsTheCheck) {
  startWithLittleMemory();
  largestBlock = PipeStream::kReadBlock / 2;
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
  largestBlock = 3 * PipeStream::kReadBlock / 2;
  EXPECT_EQ(reader().CheckATR(), QueryResult::kSuccess);
  EXPECT_EQ(reader().QueryAtr(bytes_, false), QueryResult::kSuccess);
  EXPECT_EQ(bytes_, (Bytes{0x3B, 0x00}));
}

TEST_F(Memory, ResponseThatDoesNotFitFailsTheTransmit) {
  startWithLittleMemory();
  makeCardPresent();
  log_.clear();
  EXPECT_EQ(queryTransmit({0, 1, 2, 3}, bytes_), QueryResult::kFailure);
  EXPECT_TRUE(bytes_.empty());
  EXPECT_EQ(log_.records(),
            Records{error(kNoMemory, "[QueryTransmit]No memory for APDU response")});
  expectConnectionEnded();
}

TEST_F(Memory, ResponseThatDoesNotFitIsNotAcceptedOnceTheCardIsGone) {
  startWithLittleMemory();
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
  largestBlock = 64 * 1024;
  waitForInsertion();
  ASSERT_TRUE(log_.waitFor("Unknown event received:7"));
  EXPECT_TRUE(log_.contains(error(static_cast<std::uint32_t>(-501),
                                  "Session log ID size is 1048576. Session log ID not set")));
  EXPECT_TRUE(log_.sessionIds().empty());
}

// What has not arrived is not allocated: one block more than what came.
TEST_F(Memory, AnnouncedLengthIsNotTakenAtItsWord) {
  startAccepted();
  largestBlock = 3 * PipeStream::kReadBlock / 2;
  pipes_.fail(PipeCallKind::kRead, platform::error::kBrokenPipe, 2, 1);
  agentAnswers(number(kAnnounced));
  EXPECT_EQ(reader().QueryAtr(bytes_, true), QueryResult::kFailure);
  EXPECT_EQ(log_.records(),
            Records{error(platform::error::kBrokenPipe, "[QueryATR]Failed to read ATR data")});
  EXPECT_EQ(bytes_.size(), PipeStream::kReadBlock);
}

}  // namespace
}  // namespace zelta::test
