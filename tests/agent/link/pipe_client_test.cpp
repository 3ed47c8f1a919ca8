// The client ends on the system's real pipes; the test is the driver at the other end.
#include <gtest/gtest.h>

#include <array>
#include <future>
#include <string>

#include "agent/link/pipe_client_port.h"
#include "contract/wire.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/driver_end.h"
#include "tests/support/system.h"

#if !defined(_WIN32)
#include <sys/socket.h>

#include <filesystem>

#include "agent/platform/stop_event_linux.h"
#include "platform/pipe/pipe_path.h"
#include "tests/support/pipes/raw_socket_linux.h"
#endif

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;

const Bytes kAnswer = {0x3B, 0x00, 0x00};
// More than the pipe takes without a reader.
const Bytes kMuch(test::kPipesKeepBytes ? std::size_t{1} << 22 : 1000, 0x5A);

class ConnectedPipes : public testing::Test {
 protected:
  ConnectedPipes() : port_(makeSystemPipeClient()) {
    commands_ = std::move(port_->open(commandPipeName(0)).connection);
    events_ = std::move(port_->open(eventPipeName(0)).connection);
    driver_.accept();
  }

  IoResult post(std::uint32_t code,
                std::optional<SteadyClock::time_point> deadline = std::nullopt) {
    const auto bytes = toLittleEndian(code);
    return events_->post(bytes.data(), bytes.size(), deadline);
  }
  bool tryPost(std::uint32_t code) {
    const auto bytes = toLittleEndian(code);
    return events_->tryPost(bytes.data(), bytes.size());
  }
  IoResult answer(const Bytes& bytes = kAnswer, milliseconds limit = test::kLong) {
    return commands_->answer(bytes, SteadyClock::now() + limit);
  }
  std::future<IoResult> answerOnThread(const Bytes& bytes = kAnswer) {
    return std::async(std::launch::async, [this, &bytes] { return answer(bytes); });
  }
  // Answers, and awaits the next command.
  std::future<IoResult> answerAndAwait() {
    return std::async(std::launch::async, [this] {
      const IoResult answered = answer();
      return answered == IoResult::kDone ? commands_->awaitCommand() : answered;
    });
  }
  // Only a broken driver writes there.
  std::future<IoResult> readEventPipe() {
    return std::async(std::launch::async, [this] {
      std::uint8_t byte = 0;
      return events_->read(&byte, 1, std::nullopt);
    });
  }
  std::future<IoResult> flushEvents() {
    return std::async(std::launch::async, [this] { return events_->flush(); });
  }
  std::uint32_t readCode() {
    std::array<std::uint8_t, 4> code{};
    EXPECT_EQ(commands_->read(code.data(), code.size(), std::nullopt), IoResult::kDone);
    return loadLittleEndian(code.data());
  }
  // A write to a pipe without a buffer waits until the agent has read it.
  std::future<bool> send(std::uint32_t code) {
    return std::async(std::launch::async, [this, code] { return driver_.sendNumber(code); });
  }
  void expectEvents(std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t code = first; code < first + count; ++code) {
      ASSERT_EQ(driver_.readEvent(), code);
    }
  }
  // Posts 0, 1, 2 and so on until the pipe is full; returns the number of posts.
  std::uint32_t fillEvents() {
    std::uint32_t posted = 0;
    while (post(posted, SteadyClock::now() - milliseconds(1)) == IoResult::kDone) ++posted;
    return posted;
  }

  test::PipeFolder folder_;
  test::DriverEnd driver_;
  std::unique_ptr<PipeClientPort> port_;
  std::unique_ptr<PipeConnection> commands_;
  std::unique_ptr<PipeConnection> events_;
};

// --- Commands and answers ---

TEST_F(ConnectedPipes, CommandAwaited_IsReadFieldByFieldAndNoFurther) {
  auto awaited = std::async(std::launch::async, [this] { return commands_->awaitCommand(); });
  auto sent = std::async(std::launch::async, [this] {
    return driver_.sendNumber(0x04030201) && driver_.sendNumber(7);
  });
  EXPECT_EQ(awaited.get(), IoResult::kDone);
  EXPECT_EQ(readCode(), 0x04030201u);
  EXPECT_EQ(readCode(), 7u);
  EXPECT_TRUE(sent.get());
}

// One thread gives all answers: Windows ends a thread's operations with the thread.
TEST_F(ConnectedPipes, Answer_IsItsLengthAndItsBytes) {
  const std::array<Bytes, 3> answers = {kAnswer, Bytes(), kMuch};
  auto answered = std::async(std::launch::async, [&] {
    IoResult result = IoResult::kDone;
    for (const Bytes& bytes : answers) {
      if (result == IoResult::kDone) result = answer(bytes);
    }
    return result;
  });
  for (const Bytes& bytes : answers) EXPECT_EQ(driver_.readAnswer(), bytes);
  EXPECT_EQ(answered.get(), IoResult::kDone);
}

TEST_F(ConnectedPipes, ExchangesInAQuickRow_AreNeverTakenForGivenUp) {
  // On Linux the kernel counts what the driver has read a moment late.
  constexpr int kExchanges = test::kPipesKeepBytes ? 20000 : 500;
  auto driver = std::async(std::launch::async, [this] {
    int answered = 0;
    while (answered < kExchanges && driver_.queryAtr(AgentCommand::kQueryAtr) == kAnswer) {
      ++answered;
    }
    return answered;
  });
  for (int i = 0; i < kExchanges; ++i) {
    ASSERT_EQ(commands_->awaitCommand(), IoResult::kDone);
    ASSERT_EQ(readCode(), 1u);
    ASSERT_EQ(answer(), IoResult::kDone);
  }
  EXPECT_EQ(driver.get(), kExchanges);
}

TEST_F(ConnectedPipes, CommandBeforeTheAnswer_IsNotAnswered) {
  auto sent = send(1);
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kDone);
  EXPECT_EQ(answer(), IoResult::kGivenUp);
  commands_.reset();
  sent.wait();
  EXPECT_EQ(driver_.readAnswerLength(), std::nullopt);
}

TEST_F(ConnectedPipes, CommandBeforeTheAnswerIsRead_GivesTheAnswerUp) {
  auto answered = answerAndAwait();
  auto sent = send(1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
  commands_.reset();
  sent.wait();
}

TEST_F(ConnectedPipes, CommandAfterAPartOfTheAnswer_GivesTheRestUp) {
  auto answered = answerAndAwait();
  EXPECT_EQ(driver_.readAnswerLength(), kAnswer.size());
  auto sent = send(1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
  commands_.reset();
  sent.wait();
}

TEST_F(ConnectedPipes, CommandWhileTheAnswerDoesNotFit_GivesItUp) {
  auto answered = answerOnThread(kMuch);
  EXPECT_EQ(driver_.readAnswerLength(), kMuch.size());
  auto sent = send(1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
  commands_.reset();
  sent.wait();
}

TEST_F(ConnectedPipes, DriverThatDoesNotReadOrWrite_IsWaitedForUntilTheDeadline) {
  std::uint8_t byte = 0;
  const auto deadline = SteadyClock::now() + milliseconds(20);
  EXPECT_EQ(commands_->read(&byte, 1, deadline), IoResult::kTimedOut);
  EXPECT_EQ(answer(kMuch, milliseconds(20)), IoResult::kTimedOut);
}

TEST_F(ConnectedPipes, BytesThatAreThere_AreReadAfterTheDeadline) {
  auto sent = send(7);
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kDone);
  std::array<std::uint8_t, 4> code{};
  const auto passed = SteadyClock::now() - milliseconds(1);
  EXPECT_EQ(commands_->read(code.data(), code.size(), passed), IoResult::kDone);
  EXPECT_EQ(loadLittleEndian(code.data()), 7u);
  EXPECT_TRUE(sent.get());
}

// --- Events ---

// Single bytes before the events shift the point at which a pipe with a buffer is full.
class FullEventPipe : public ConnectedPipes, public testing::WithParamInterface<int> {};

TEST_P(FullEventPipe, PostThatTimedOut_HandsOverNothingAndMayBeRepeated) {
  for (int byte = 0; byte < GetParam(); ++byte) {
    ASSERT_EQ(events_->post("x", 1, std::nullopt), IoResult::kDone);
  }
  const std::uint32_t posted = fillEvents();
  EXPECT_EQ(post(posted, SteadyClock::now() + milliseconds(20)), IoResult::kTimedOut);
  EXPECT_FALSE(tryPost(posted));
  auto repeated = std::async(std::launch::async, [&] {
    const IoResult result = post(posted);
    // The thread's end may take back bytes that the driver has not read.
    return result == IoResult::kDone ? events_->flush() : result;
  });
  for (int byte = 0; byte < GetParam(); ++byte) ASSERT_EQ(driver_.readEventByte(), 'x');
  expectEvents(0, posted + 1);
  EXPECT_EQ(repeated.get(), IoResult::kDone);
}

INSTANTIATE_TEST_SUITE_P(Shifts, FullEventPipe, testing::Range(0, 4), [](const auto& each) {
  return "After" + std::to_string(each.param) + "Bytes";
});

TEST_F(ConnectedPipes, TriedPost_IsHandedOverIfThePipeKeepsItAfterTheThread) {
  auto tried = std::async(std::launch::async, [this] { return tryPost(1); });
  const bool handedOver = tried.get();
  EXPECT_EQ(handedOver, test::kPipesKeepBytes);
  EXPECT_EQ(post(2), IoResult::kDone);
  if (handedOver) expectEvents(1, 1);
  expectEvents(2, 1);
}

TEST_F(ConnectedPipes, ReadAndPosts_RunAtTheSameTime) {
  auto read = readEventPipe();
  EXPECT_EQ(post(1), IoResult::kDone);
  EXPECT_TRUE(driver_.writeToEventPipe({42}));
  EXPECT_EQ(read.get(), IoResult::kDone);
  expectEvents(1, 1);
}

TEST_F(ConnectedPipes, Flush_ReturnsWhenTheDriverHasReadEveryPost) {
  EXPECT_EQ(events_->flush(), IoResult::kDone);  // nothing posted
  for (int round = 0; round < (test::kPipesKeepBytes ? 500 : 20); ++round) {
    ASSERT_EQ(post(1), IoResult::kDone);
    ASSERT_EQ(post(2), IoResult::kDone);
    auto flushed = flushEvents();
    expectEvents(1, 1);
    if (round == 0) {
      EXPECT_NE(flushed.wait_for(milliseconds(20)), std::future_status::ready);
    }
    expectEvents(2, 1);
    ASSERT_EQ(flushed.get(), IoResult::kDone);
  }
}

// --- The end ---

TEST_F(ConnectedPipes, Cancel_ReleasesEveryOperationAndStays) {
  auto read = readEventPipe();
  EXPECT_EQ(post(1), IoResult::kDone);
  auto flushed = flushEvents();
  auto answered = answerOnThread(kMuch);
  events_->cancel();
  commands_->cancel();
  EXPECT_EQ(read.get(), IoResult::kCancelled);
  EXPECT_EQ(flushed.get(), IoResult::kCancelled);
  EXPECT_EQ(answered.get(), IoResult::kCancelled);
  EXPECT_EQ(post(1), IoResult::kCancelled);
  EXPECT_FALSE(tryPost(1));
  EXPECT_EQ(events_->flush(), IoResult::kCancelled);
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kCancelled);
  EXPECT_EQ(answer(), IoResult::kCancelled);
}

TEST_F(ConnectedPipes, DriverThatGoes_EndsEveryOperation) {
  EXPECT_EQ(post(1), IoResult::kDone);
  auto flushed = flushEvents();
  auto read = readEventPipe();
  driver_.disconnect();
  const IoResult flush = flushed.get();
  EXPECT_TRUE(flush == IoResult::kClosed || (flush == IoResult::kDone && test::kPipesKeepBytes));
  EXPECT_EQ(read.get(), IoResult::kClosed);
  EXPECT_EQ(post(1), IoResult::kClosed);
  EXPECT_FALSE(tryPost(1));
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kClosed);
  EXPECT_EQ(answer(), IoResult::kClosed);
}

// --- Opening ---

class UnopenedPipes : public testing::Test {
 protected:
  test::PipeFolder folder_;
  const std::unique_ptr<PipeClientPort> port_ = makeSystemPipeClient();
};

TEST_F(UnopenedPipes, Open_TellsAbsentOpenedAndRefused) {
  EXPECT_EQ(port_->open(commandPipeName(0)).result, OpenResult::kAbsent);
  test::DriverEnd driver;
  const OpenedPipe opened = port_->open(commandPipeName(0));
  EXPECT_EQ(opened.result, OpenResult::kOpened);
  EXPECT_NE(opened.connection, nullptr);
  const OpenedPipe events = port_->open(eventPipeName(0));
  driver.accept();
  const OpenedPipe refused = port_->open(commandPipeName(0));
  EXPECT_EQ(refused.result, OpenResult::kRefused);
  EXPECT_EQ(refused.connection, nullptr);
  EXPECT_NE(refused.detail.find("zelta_smartcard_command0: "), std::string::npos);
}

TEST_F(UnopenedPipes, WaitForChange_EndsByItsLimitAndByCancel) {
  port_->watch({commandPipeName(0)});
  port_->waitForChange(milliseconds(1));
  auto waited = std::async(std::launch::async, [this] { port_->waitForChange(std::nullopt); });
  port_->cancel();
  waited.get();
  const auto begin = SteadyClock::now();
  for (int wait = 0; wait < 1000; ++wait) port_->waitForChange(std::nullopt);
  EXPECT_LT(SteadyClock::now() - begin, std::chrono::seconds(60));
}

#if !defined(_WIN32)
// A process that was forked meanwhile would keep it open.
TEST_F(ConnectedPipes, Cancel_EndsTheConnectionForTheDriverWhileTheSocketIsOpen) {
  EXPECT_EQ(post(7), IoResult::kDone);
  events_->cancel();
  commands_->cancel();
  EXPECT_EQ(driver_.readEvent(), 7u);
  EXPECT_EQ(driver_.readEvent(), std::nullopt);
  EXPECT_EQ(driver_.readAnswerLength(), std::nullopt);
}

TEST_F(UnopenedPipes, PipeThatIsCreated_EndsTheWait) {
  port_->watch({commandPipeName(0)});
  auto waited = std::async(std::launch::async, [this] { port_->waitForChange(std::nullopt); });
  test::DriverEnd driver;
  waited.get();
}

// A full pipe from which one write has been read takes exactly one more.
TEST_F(UnopenedPipes, Answer_LeavesInOneWrite) {
  const std::string path = platform::pipeSocketPath(commandPipeName(0));
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const platform::ScopedFd listening = test::bindSocket(path, 1);
  const OpenedPipe commands = port_->open(commandPipeName(0));
  ASSERT_EQ(commands.result, OpenResult::kOpened);
  const platform::ScopedFd driver(accept(listening.get(), nullptr, nullptr));
  PipeConnection& agent = *commands.connection;
  while (agent.tryPost("x", 1)) {
  }
  char byte = 0;
  ASSERT_EQ(recv(driver.get(), &byte, 1, 0), 1);
  EXPECT_EQ(agent.answer(kAnswer, SteadyClock::now()), IoResult::kDone);
  EXPECT_FALSE(agent.tryPost("x", 1));
}

TEST(PollTimeout, Deadline_IsRoundedUpAndNeverBelowZero) {
  EXPECT_EQ(pollTimeout(std::nullopt), -1);
  EXPECT_EQ(pollTimeout(SteadyClock::now() - milliseconds(5)), 0);
  EXPECT_GT(pollTimeout(SteadyClock::now() + std::chrono::hours(24 * 365)), 0);
}
#else
TEST_F(ConnectedPipes, PostsThatTheDriverDidNotRead_GoWithTheConnection) {
  EXPECT_EQ(post(1), IoResult::kDone);
  EXPECT_EQ(post(2), IoResult::kDone);
  events_.reset();
  EXPECT_EQ(driver_.readEvent(), std::nullopt);
}

TEST_F(ConnectedPipes, AnswerThatWasGivenUp_IsNoLongerInThePipe) {
  auto answered = answerOnThread();
  auto sent = send(1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
  commands_.reset();
  EXPECT_FALSE(sent.get());
  EXPECT_EQ(driver_.readAnswerLength(), std::nullopt);
}
#endif

}  // namespace
}  // namespace zelta::agent
