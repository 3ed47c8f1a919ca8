// Flush on real sockets. It ends when the client has read everything, however and whenever it
// reads, and neither spins nor sleeps meanwhile. And it is a barrier: bytes that a client leaves
// behind never answer a command that the client has not read, whenever it leaves.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/pipes/raw_socket_linux.h"

namespace zelta::test {

namespace {

using platform::ScopedFd;

const PipeOutcome kGone{false, error::kBrokenPipe};

class PipeTransferTest : public SystemPipeTest {
 protected:
  void SetUp() override {
    createPipe();
    letClientIn();
  }

  void letClientIn() {
    ASSERT_EQ(connectSocket(path(), &client_), 0);
    ASSERT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  }
  void nextClient() {
    ASSERT_EQ(disconnect(), kPipeOk);
    letClientIn();
  }
  void leaveAnswer() const {
    const Bytes stale(8, 0xEE);
    ASSERT_EQ(send(client_.get(), stale.data(), stale.size(), MSG_NOSIGNAL), 8);
  }
  std::size_t clientReads(std::size_t size) const {
    Bytes bytes(size);
    const ssize_t count = recv(client_.get(), bytes.data(), size, MSG_WAITALL);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  void writeCode() { write({2, 0, 0, 0}); }
  void writeRest() {
    write({1, 0, 0, 0});
    write({7});
  }
  void writeCommand() {
    writeCode();
    writeRest();
  }
  bool readHalfAnAnswer() {
    Bytes bytes(4);
    return read(&bytes).ok;
  }

  ScopedFd client_;
};

// The steps, one letter each, and the result of the flush:
//   a  the client leaves an answer (8 bytes)      c, r  the first 4 and the last 5 bytes of a
//   1..9  the client reads as many bytes                command are written
//   F  the flush begins and blocks                L  the client closes its socket
//   f  a flush succeeds                           S  the client shuts its socket down and keeps it
//   h  half of an answer is read                  D  the pipe is disconnected
struct Story {
  const char* name;
  const char* steps;
  PipeOutcome flushed;
};

class PipeFlushStory : public PipeTransferTest, public testing::WithParamInterface<Story> {
 protected:
  void take(char step) {
    const auto found = steps_.find(step);
    if (found != steps_.end()) return found->second();
    const auto size = static_cast<std::size_t>(step - '0');
    ASSERT_EQ(clientReads(size), size);
  }

  std::unique_ptr<BlockedPipeCall> flushing_;

 private:
  const std::map<char, std::function<void()>> steps_{
      {'a', [this] { leaveAnswer(); }},
      {'c', [this] { writeCode(); }},
      {'r', [this] { writeRest(); }},
      {'f', [this] { ASSERT_EQ(flush(), kPipeOk); }},
      {'h', [this] { ASSERT_TRUE(readHalfAnAnswer()); }},
      {'F',
       [this] {
         flushing_ = std::make_unique<BlockedPipeCall>(flush_);
         ASSERT_FALSE(flushing_->ended());
       }},
      {'L', [this] { client_.reset(); }},
      {'S', [this] { ASSERT_EQ(shutdown(client_.get(), SHUT_RDWR), 0); }},
      {'D', [this] { ASSERT_EQ(disconnect(), kPipeOk); }},
  };
};

TEST_P(PipeFlushStory, Flush_TellsIfTheClientIsGoneAndNothingStaleIsRead) {
  const std::string steps = GetParam().steps;
  for (const char step : steps) ASSERT_NO_FATAL_FAILURE(take(step)) << step;
  EXPECT_EQ(flushing_ != nullptr ? flushing_->outcome() : flush(), GetParam().flushed);
  if (steps.find('a') == std::string::npos) return;
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), kGone);
  EXPECT_EQ(read(&bytes), kGone);
}

INSTANTIATE_TEST_SUITE_P(
    , PipeFlushStory,
    testing::Values(Story{"NothingWritten", "", kPipeOk},
                    Story{"EverythingReadBefore", "c4", kPipeOk},
                    Story{"ClientReadsLate", "cF4", kPipeOk},
                    Story{"ClientReadsEverythingAndLeaves", "crF9L", kPipeOk},
                    Story{"ClientLeavesOneByteBeforeTheEnd", "crF8L", kGone},
                    Story{"PipeIsDisconnected", "cFD", kGone},
                    Story{"OldAnswerAndClientLeavesBeforeTheCommand", "aLcr", kGone},
                    Story{"OldAnswerAndClientLeavesWithinTheCommand", "acLr", kGone},
                    Story{"OldAnswerAndClientReadsTheFirstFieldAndLeaves", "ac4Lr", kGone},
                    Story{"OldAnswerAndClientLeavesBeforeTheFlush", "acrL", kGone},
                    Story{"OldAnswerAndClientLeavesDuringTheFlush", "acrFL", kGone},
                    Story{"OldAnswerAndClientLeavesOneByteBeforeTheEnd", "acr8FL", kGone},
                    Story{"OldAnswerAndClientShutsItsSocket", "acrS", kGone},
                    Story{"OldAnswerAndClientShutsItsSocketDuringTheFlush", "acrFS", kGone},
                    Story{"OldAnswerAndClientReadsTheCommandAndLeaves", "acr9L", kGone},
                    Story{"OldAnswerAndClientReadsTheNextCommandAndLeaves", "acr9fhcr9L", kGone}),
    [](const auto& story) { return std::string(story.param.name); });

TEST_F(PipeTransferTest, ClientReadsInPieces_FlushWaitsForTheLastByteOfAll) {
  const Bytes large(300000, 7);
  for (const std::size_t size : {5U, 4U, 20U}) ASSERT_EQ(write(Bytes(size)), kPipeOk);
  PipeCallThread call(
      [&] { return pipes_.write(pipe_, large.data(), 300000) && pipes_.flush(pipe_); });
  for (int piece = 0; piece < 29; ++piece) {
    call.waitUntilBlocked();
    ASSERT_FALSE(call.ended()) << "after " << piece << " bytes";
    ASSERT_EQ(clientReads(1), 1U);
  }
  ASSERT_EQ(clientReads(large.size() - 1), large.size() - 1);
  call.waitUntilBlocked();
  ASSERT_FALSE(call.ended());
  ASSERT_EQ(clientReads(1), 1U);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeTransferTest, ClientReadsLessThanABuffer_FlushDoesNotWake) {
  ASSERT_EQ(write(Bytes(1001)), kPipeOk);
  BlockedPipeCall call(flush_);
  const std::uint64_t before = call.sleeps();
  for (int piece = 0; piece < 1000; ++piece) ASSERT_EQ(clientReads(1), 1U);
  call.waitUntilBlocked();
  EXPECT_EQ(call.sleeps(), before) << "the waiting thread was woken, or woke by itself";
  EXPECT_FALSE(call.ended());
  ASSERT_EQ(clientReads(1), 1U);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeTransferTest, SeveralFlushesAtOnce_AllReturn) {
  ASSERT_EQ(write(Bytes(9)), kPipeOk);
  BlockedPipeCall calls[] = {BlockedPipeCall(flush_), BlockedPipeCall(flush_),
                             BlockedPipeCall(flush_)};
  for (const PipeCallThread& call : calls) ASSERT_FALSE(call.ended());
  ASSERT_EQ(clientReads(9), 9U);
  for (PipeCallThread& call : calls) EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeTransferTest, CancelledFlush_TakesNothingBackAndDoesNotMakeTheClientGone) {
  leaveAnswer();
  writeCommand();
  BlockedPipeCall call(flush_);
  ASSERT_EQ(cancel(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  EXPECT_EQ(clientReads(9), 9U);
  EXPECT_EQ(flush(), kPipeOk);
  EXPECT_TRUE(readHalfAnAnswer());
}

TEST_F(PipeTransferTest, ClientFoundGone_StaysGoneUntilTheNextIsLetIn) {
  leaveAnswer();
  writeCommand();
  client_.reset();
  for (int call = 0; call < 3; ++call) {
    EXPECT_EQ(flush(), kGone);
    EXPECT_EQ(write({1}), kGone);
    Bytes bytes(1);
    EXPECT_EQ(read(&bytes), kGone);
  }
  EXPECT_EQ(cancel(), pipeError(error::kNotFound));
  nextClient();
  leaveAnswer();
  EXPECT_TRUE(readHalfAnAnswer());
}

TEST_F(PipeTransferTest, ClientFoundGoneByAWrite_IsReplacedByAConnect) {
  ASSERT_EQ(shutdown(client_.get(), SHUT_RD), 0) << "gone as far as a write can tell, no further";
  EXPECT_FALSE(write({1}).ok);
  PipeCallThread connecting(connect_);
  expectServed(connecting);
}

// The client leaves at any moment from before the first write until the flush waits.
TEST_F(PipeTransferTest, ClientLeavesAtAnyMoment_ItsOldAnswerIsNeverRead) {
  constexpr int kRounds = 2000;
  int stale = 0;
  for (int round = 0; round < kRounds; ++round) {
    leaveAnswer();
    std::atomic<bool> begun{false};
    std::thread leaving([&] {
      while (!begun) std::this_thread::yield();
      for (std::atomic<int> wait{0}; wait < round; ++wait) {
      }
      if (round % 3 == 0) clientReads(static_cast<std::size_t>(round % 9));
      client_.reset();
    });
    begun = true;
    writeCommand();
    flush();
    stale += readHalfAnAnswer() ? 1 : 0;
    leaving.join();
    stale += readHalfAnAnswer() ? 1 : 0;
    nextClient();
  }
  EXPECT_EQ(stale, 0);
}

// The kernel reports a loss only once, to the first call, which may be another thread's write.
TEST_F(PipeTransferTest, WriteOfAnotherThreadMeetsTheLoss_TheOldAnswerIsNeverRead) {
  constexpr int kRounds = 1000;
  int stale = 0;
  for (int round = 0; round < kRounds; ++round) {
    leaveAnswer();
    std::thread writing([this] {
      while (write({1}).ok) {
      }
    });
    std::thread leaving([&] {
      for (std::atomic<int> wait{0}; wait < round; ++wait) {
      }
      client_.reset();
    });
    writeCommand();
    stale += flush().ok ? 1 : 0;
    stale += readHalfAnAnswer() ? 1 : 0;
    writing.join();
    leaving.join();
    nextClient();
  }
  EXPECT_EQ(stale, 0);
}

// A client that has read the command has not gone before it answered.
TEST_F(PipeTransferTest, ClientReadsAnswersAndLeaves_ItsAnswerIsAlwaysRead) {
  constexpr int kRounds = 1000;
  int answers = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::thread answering([this] {
      clientReads(9);
      leaveAnswer();
      client_.reset();
    });
    writeCommand();
    answers += flush().ok && readHalfAnAnswer() && readHalfAnAnswer() ? 1 : 0;
    answering.join();
    nextClient();
  }
  EXPECT_EQ(answers, kRounds);
}

}  // namespace

}  // namespace zelta::test
