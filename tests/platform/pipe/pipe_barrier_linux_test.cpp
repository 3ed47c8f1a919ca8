// Flush as a barrier: what a client has left unread by its server is no answer to a command that
// the client has not read, whenever it leaves. Its server does not look at what write and flush
// give, it only reads afterwards.
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "platform/process/error.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/raw_socket_linux.h"

namespace zelta::test {

namespace {

using platform::ScopedFd;

const PipeOutcome kGone{false, error::kBrokenPipe};

class PipeBarrierTest : public SystemPipeTest {
 protected:
  void SetUp() override {
    createPipe();
    letClientIn();
  }

  void letClientIn() {
    ASSERT_EQ(connectSocket(path(), &client_), 0);
    ASSERT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  }
  // A client that was connected, and with the answer that it owed to an earlier command.
  void letClientInThatOwed() {
    letClientIn();
    leaveAnswer();
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
  void clientLeaves() { client_.reset(); }

  void writeCode() { write({2, 0, 0, 0}); }
  void writeRest() {
    write({1, 0, 0, 0});
    write({7});
  }
  void writeCommand() {
    writeCode();
    writeRest();
  }
  bool readAnswer() {
    Bytes bytes(4);
    return read(&bytes).ok;
  }
  void expectNothingIsRead() {
    Bytes bytes(1);
    EXPECT_EQ(read(&bytes), kGone);
    EXPECT_EQ(read(&bytes), kGone);
  }

  ScopedFd client_;
};

TEST_F(PipeBarrierTest, ClientLeavesBeforeTheCommand_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  clientLeaves();
  writeCommand();
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientLeavesWithinTheCommand_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCode();
  clientLeaves();
  writeRest();
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientThatReadTheFirstFieldLeavesBeforeTheNext_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCode();
  ASSERT_EQ(clientReads(4), 4U);
  clientLeaves();
  writeRest();
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientLeavesBeforeTheFlush_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCommand();
  clientLeaves();
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientLeavesDuringTheFlush_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCommand();
  PipeCallThread call([this] { return pipes_.flush(pipe_); });
  call.waitUntilBlocked();
  clientLeaves();
  EXPECT_EQ(call.outcome(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientLeavesOneByteBeforeTheEnd_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCommand();
  ASSERT_EQ(clientReads(8), 8U);
  PipeCallThread call([this] { return pipes_.flush(pipe_); });
  call.waitUntilBlocked();
  clientLeaves();
  EXPECT_EQ(call.outcome(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientShutsItsSocketAndKeepsIt_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCommand();
  ASSERT_EQ(shutdown(client_.get(), SHUT_RDWR), 0);
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientShutsItsSocketDuringTheFlush_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCommand();
  PipeCallThread call([this] { return pipes_.flush(pipe_); });
  call.waitUntilBlocked();
  ASSERT_EQ(shutdown(client_.get(), SHUT_RDWR), 0);
  EXPECT_EQ(call.outcome(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientFoundGone_StaysGoneUntilTheNextIsLetIn) {
  leaveAnswer();
  writeCommand();
  clientLeaves();
  ASSERT_EQ(flush(), kGone);
  for (int call = 0; call < 3; ++call) {
    EXPECT_EQ(write({1}), kGone);
    EXPECT_EQ(flush(), kGone);
    EXPECT_FALSE(readAnswer());
    EXPECT_EQ(platform::lastError(), error::kBrokenPipe);
  }
  EXPECT_EQ(cancel(), pipeError(error::kNotFound));
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(flush(), pipeError(error::kPipeListening));
  letClientInThatOwed();
  EXPECT_TRUE(readAnswer());
}

TEST_F(PipeBarrierTest, ClientFoundGoneByAWrite_IsReplacedByAConnect) {
  ASSERT_EQ(shutdown(client_.get(), SHUT_RD), 0) << "gone as far as a write can tell, no further";
  EXPECT_FALSE(write({1}).ok);
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  PipeClient next;
  ASSERT_TRUE(next.connectWhenListening(kPipeName));
  const std::uint32_t outcome = call.outcome().error;
  EXPECT_TRUE(outcome == error::kSuccess || outcome == error::kPipeConnected) << outcome;
  ASSERT_TRUE(next.writeNumber(1));
  EXPECT_TRUE(readAnswer());
}

TEST_F(PipeBarrierTest, CancelledFlush_DoesNotMakeTheClientGone) {
  leaveAnswer();
  writeCommand();
  PipeCallThread call([this] { return pipes_.flush(pipe_); });
  call.waitUntilBlocked();
  ASSERT_EQ(cancel(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  EXPECT_TRUE(readAnswer());
}

// At any moment from before the first write until the flush waits.
TEST_F(PipeBarrierTest, ClientLeavesAtAnyMoment_ItsOldAnswerIsNeverRead) {
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
      clientLeaves();
    });
    begun = true;
    writeCommand();
    flush();
    stale += readAnswer() ? 1 : 0;
    leaving.join();
    stale += readAnswer() ? 1 : 0;
    ASSERT_EQ(disconnect(), kPipeOk);
    letClientIn();
  }
  EXPECT_EQ(stale, 0);
}

// The kernel tells a loss once: to whoever asks first, be it another thread's write.
TEST_F(PipeBarrierTest, WriteOfAnotherThreadMeetsTheLoss_TheOldAnswerIsNeverRead) {
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
      clientLeaves();
    });
    writeCommand();
    stale += flush().ok ? 1 : 0;
    stale += readAnswer() ? 1 : 0;
    writing.join();
    leaving.join();
    ASSERT_EQ(disconnect(), kPipeOk);
    letClientIn();
  }
  EXPECT_EQ(stale, 0);
}

TEST_F(PipeBarrierTest, ClientThatReadTheCommandLeaves_WhatItLeftBeforeTheCommandIsNotRead) {
  leaveAnswer();
  writeCommand();
  ASSERT_EQ(clientReads(9), 9U);
  clientLeaves();
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

TEST_F(PipeBarrierTest, ClientThatReadTheNextCommandLeaves_ItsOldAnswerIsNotRead) {
  leaveAnswer();
  writeCommand();
  ASSERT_EQ(clientReads(9), 9U);
  ASSERT_EQ(flush(), kPipeOk);
  ASSERT_TRUE(readAnswer());  // half of it
  writeCommand();
  ASSERT_EQ(clientReads(9), 9U);
  clientLeaves();
  EXPECT_EQ(flush(), kGone);
  expectNothingIsRead();
}

// A client that has read the command has not gone before it answered.
TEST_F(PipeBarrierTest, ClientReadsAnswersAndLeaves_ItsAnswerIsAlwaysRead) {
  constexpr int kRounds = 1000;
  int answers = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::thread answering([this] {
      clientReads(9);
      leaveAnswer();
      clientLeaves();
    });
    writeCommand();
    answers += flush().ok && readAnswer() && readAnswer() ? 1 : 0;
    answering.join();
    ASSERT_EQ(disconnect(), kPipeOk);
    letClientIn();
  }
  EXPECT_EQ(answers, kRounds);
}

}  // namespace

}  // namespace zelta::test
