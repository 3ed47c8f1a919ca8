// Flush on real sockets: it must end when the client has read everything, however and whenever it
// reads, and must neither spin nor sleep meanwhile.
#include <gmock/gmock.h>

#include <thread>

#include "tests/platform/pipe/system_pipe_fixture_linux.h"

namespace zelta::test {

namespace {

class PipeFlushTest : public SystemPipeTest {
 protected:
  void SetUp() override {
    createPipe();
    client_ = connected();
  }

  bool flushPipe() { return pipes_.flush(pipe_); }

  PipeClient client_;
};

TEST_F(PipeFlushTest, NothingWrittenReturnsAtOnce) { EXPECT_EQ(flush(), kPipeOk); }

TEST_F(PipeFlushTest, EverythingReadBeforeReturnsAtOnce) {
  ASSERT_EQ(write({1, 2, 3}), kPipeOk);
  ASSERT_EQ(client_.read(3).size(), 3U);
  EXPECT_EQ(flush(), kPipeOk);
}

TEST_F(PipeFlushTest, WaitsForAClientThatReadsLate) {
  ASSERT_EQ(write({1}), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  call.waitUntilBlocked();
  ASSERT_FALSE(call.ended());
  ASSERT_EQ(client_.read(1).size(), 1U);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeFlushTest, WaitsForTheLastByteOfAClientThatReadsInPieces) {
  ASSERT_EQ(write(Bytes(5)), kPipeOk);
  ASSERT_EQ(write(Bytes(4)), kPipeOk);
  ASSERT_EQ(write(Bytes(20)), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  for (int piece = 0; piece < 28; ++piece) {
    call.waitUntilBlocked();
    ASSERT_FALSE(call.ended()) << "after " << piece << " of 29 bytes";
    ASSERT_EQ(client_.read(1).size(), 1U);
  }
  call.waitUntilBlocked();
  ASSERT_FALSE(call.ended());
  ASSERT_EQ(client_.read(1).size(), 1U);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeFlushTest, DoesNotRunWhileTheClientReadsLessThanABuffer) {
  ASSERT_EQ(write(Bytes(1001)), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  call.waitUntilBlocked();
  const std::uint64_t before = call.sleeps();
  for (int piece = 0; piece < 1000; ++piece) ASSERT_EQ(client_.read(1).size(), 1U);
  call.waitUntilBlocked();
  EXPECT_EQ(call.sleeps(), before) << "the waiting thread was woken, or woke by itself";
  EXPECT_FALSE(call.ended());
  ASSERT_EQ(client_.read(1).size(), 1U);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeFlushTest, WaitsForAMessageThatFilledTheSocket) {
  const Bytes large(300000, 7);
  PipeCallThread call([&] {
    return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size())) &&
           flushPipe();
  });
  ASSERT_EQ(client_.read(large.size() - 1).size(), large.size() - 1);
  call.waitUntilBlocked();
  ASSERT_FALSE(call.ended());
  ASSERT_EQ(client_.read(1), Bytes{7});
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeFlushTest, SeveralAtOnceAllReturn) {
  ASSERT_EQ(write(Bytes(10)), kPipeOk);
  PipeCallThread first([this] { return flushPipe(); });
  PipeCallThread second([this] { return flushPipe(); });
  PipeCallThread third([this] { return flushPipe(); });
  for (PipeCallThread* call : {&first, &second, &third}) {
    call->waitUntilBlocked();
    ASSERT_FALSE(call->ended());
  }
  ASSERT_EQ(client_.read(10).size(), 10U);
  for (PipeCallThread* call : {&first, &second, &third}) EXPECT_EQ(call->outcome(), kPipeOk);
}

TEST_F(PipeFlushTest, ClientThatLeavesWithBytesUnreadBreaksIt) {
  ASSERT_EQ(write(Bytes(10)), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  call.waitUntilBlocked();
  ASSERT_EQ(client_.read(9).size(), 9U);
  client_.close();
  EXPECT_EQ(call.outcome(), pipeError(error::kBrokenPipe));
  EXPECT_EQ(flush(), pipeError(error::kBrokenPipe));
}

TEST_F(PipeFlushTest, ClientThatLeavesHavingReadEverythingDoesNotBreakIt) {
  ASSERT_EQ(write(Bytes(10)), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  call.waitUntilBlocked();
  ASSERT_EQ(client_.read(10).size(), 10U);
  client_.close();
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeFlushTest, CancelReleasesIt) {
  ASSERT_EQ(write({1}), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  call.waitUntilBlocked();
  EXPECT_EQ(cancel(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  EXPECT_EQ(client_.read(1), Bytes{1}) << "what was written is not taken back";
  EXPECT_EQ(flush(), kPipeOk);
}

TEST_F(PipeFlushTest, DisconnectEndsIt) {
  ASSERT_EQ(write({1}), kPipeOk);
  PipeCallThread call([this] { return flushPipe(); });
  call.waitUntilBlocked();
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kBrokenPipe));
}

// The client starts to read at any moment of write, of the beginning flush and of its wait.
TEST_F(PipeFlushTest, ReturnsWheneverTheClientReads) {
  constexpr int kRounds = 3000;
  std::thread reader([this] {
    for (int round = 0; round < kRounds; ++round) {
      const std::size_t size = static_cast<std::size_t>(round % 5 + 1);
      if (client_.read(size).size() != size) return;
      if (client_.read(4).size() != 4) return;
    }
  });
  int flushed = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (write(Bytes(static_cast<std::size_t>(round % 5 + 1))).ok && write(Bytes(4)).ok &&
        flush().ok) {
      ++flushed;
    }
  }
  EXPECT_EQ(flushed, kRounds);
  reader.join();
}

// As the command pipe is used: request in three writes, flush, answer.
TEST_F(PipeFlushTest, ExchangesByTheHundreds) {
  constexpr std::uint32_t kRounds = 500;
  std::thread agent([this] {
    for (std::uint32_t round = 0; round < kRounds; ++round) {
      client_.readNumber();
      const Bytes request = client_.read(client_.readNumber().value_or(0));
      client_.writeNumber(static_cast<std::uint32_t>(request.size()));
      client_.write(request);
    }
  });
  for (std::uint32_t round = 0; round < kRounds; ++round) {
    const Bytes request(round % 261 + 1, static_cast<std::uint8_t>(round));
    const auto size = static_cast<std::uint8_t>(request.size());
    ASSERT_EQ(write({2, 0, 0, 0}), kPipeOk);
    ASSERT_EQ(write({size, static_cast<std::uint8_t>(request.size() >> 8), 0, 0}), kPipeOk);
    ASSERT_EQ(write(request), kPipeOk);
    ASSERT_EQ(flush(), kPipeOk);
    Bytes length(4);
    ASSERT_EQ(read(&length), kPipeOk);
    Bytes answer(request.size());
    ASSERT_EQ(read(&answer), kPipeOk);
    ASSERT_EQ(answer, request);
  }
  agent.join();
}

}  // namespace

}  // namespace zelta::test
