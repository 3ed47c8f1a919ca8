// The client ends on real named pipes without a buffer.
#include "agent/platform/pipe_connection_win32.h"

#include <gtest/gtest.h>

#include <array>
#include <future>
#include <string>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;

const Bytes kAnswer = {0x3B, 0x00, 0x00};

// A connected client end; the test is the driver at the other.
class NamedPipe : public testing::Test {
 protected:
  NamedPipe() : port_(makeSystemPipeClient()) {
    commands_ = std::move(port_->open(commandPipeName(0)).connection);
    events_ = std::move(port_->open(eventPipeName(0)).connection);
    driver_.accept();
  }

  // Events as they come behind each other.
  void expectEvents(std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t code = first; code < first + count; ++code) {
      ASSERT_EQ(driver_.readEvent(), code);
    }
  }

  IoResult post(std::uint32_t code,
                std::optional<SteadyClock::time_point> deadline = std::nullopt) {
    const auto bytes = toLittleEndian(code);
    return events_->post(bytes.data(), bytes.size(), deadline);
  }

  IoResult answer(milliseconds limit = test::kLong) {
    return commands_->answer(kAnswer, SteadyClock::now() + limit);
  }

  std::uint32_t readCode() {
    std::array<std::uint8_t, 4> code{};
    EXPECT_EQ(commands_->read(code.data(), code.size(), std::nullopt), IoResult::kDone);
    return loadLittleEndian(code.data());
  }

  // The driver's write waits until the agent has read it.
  std::future<bool> send(std::uint32_t code) {
    return std::async(std::launch::async, [this, code] { return driver_.sendNumber(code); });
  }

  test::DriverEnd driver_;
  std::unique_ptr<PipeClientPort> port_;
  std::unique_ptr<PipeConnection> commands_;
  std::unique_ptr<PipeConnection> events_;
};

TEST_F(NamedPipe, postsDoNotWaitForTheDriverAndKeepTheirOrder) {
  for (std::uint32_t code = 0; code < NamedPipeConnection::kMostPosts; ++code) {
    ASSERT_EQ(post(code), IoResult::kDone);
  }
  expectEvents(0, NamedPipeConnection::kMostPosts);
}

TEST_F(NamedPipe, fullPipeIsWaitedForUntilTheDeadline) {
  for (std::uint32_t code = 0; code < NamedPipeConnection::kMostPosts; ++code) {
    ASSERT_EQ(post(code), IoResult::kDone);
  }
  EXPECT_EQ(post(9999, SteadyClock::now() + milliseconds(20)), IoResult::kTimedOut);
  auto posted = std::async(std::launch::async, [this] {
    const IoResult result = post(1000);
    // The thread's end would take back what the driver has not read.
    return result == IoResult::kDone ? events_->flush() : result;
  });
  expectEvents(0, NamedPipeConnection::kMostPosts);
  expectEvents(1000, 1);
  EXPECT_EQ(posted.get(), IoResult::kDone);
}

TEST_F(NamedPipe, readRunsBesidePosts) {
  auto read = std::async(std::launch::async, [this] {
    std::uint8_t byte = 0;
    const IoResult result = events_->read(&byte, 1, std::nullopt);
    return result == IoResult::kDone ? byte : std::uint8_t{0};
  });
  EXPECT_EQ(post(1), IoResult::kDone);
  EXPECT_TRUE(driver_.writeToEventPipe({42}));
  EXPECT_EQ(read.get(), 42);
  expectEvents(1, 1);
}

TEST_F(NamedPipe, flushWaitsUntilTheDriverHasReadEveryPost) {
  EXPECT_EQ(events_->flush(), IoResult::kDone);  // nothing posted
  EXPECT_EQ(post(1), IoResult::kDone);
  EXPECT_EQ(post(2), IoResult::kDone);
  auto flushed = std::async(std::launch::async, [this] { return events_->flush(); });
  expectEvents(1, 1);
  EXPECT_NE(flushed.wait_for(milliseconds(20)), std::future_status::ready);
  expectEvents(2, 1);
  EXPECT_EQ(flushed.get(), IoResult::kDone);
}

TEST_F(NamedPipe, answerEndsAtItsDeadlineWhereTheDriverDoesNotRead) {
  EXPECT_EQ(answer(milliseconds(20)), IoResult::kTimedOut);
}

TEST_F(NamedPipe, firstByteOfACommandIsReadWithTheOthers) {
  auto sent = send(0x04030201);
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kDone);
  EXPECT_EQ(readCode(), 0x04030201u);
  EXPECT_TRUE(sent.get());
}

TEST_F(NamedPipe, exchangesInAQuickRowAreNeverTakenForGivenUp) {
  constexpr int kExchanges = 500;
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

// The driver stops waiting before it has read the answer, or after its length.
TEST_F(NamedPipe, commandBeforeTheAnswerIsReadTakesTheAnswerBack) {
  auto answered = std::async(std::launch::async, [this] { return answer(); });
  auto sent = send(1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
  commands_.reset();
  EXPECT_FALSE(sent.get());
  EXPECT_EQ(driver_.readAnswerLength(), std::nullopt);
}

TEST_F(NamedPipe, commandAfterAPartOfTheAnswerTakesTheRestBack) {
  auto answered = std::async(std::launch::async, [this] { return answer(); });
  EXPECT_EQ(driver_.readAnswerLength(), kAnswer.size());
  auto sent = send(1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
  commands_.reset();
  EXPECT_FALSE(sent.get());
  EXPECT_EQ(driver_.readAnswerLength(), std::nullopt);
}

TEST_F(NamedPipe, readEndsAtItsDeadline) {
  char c = 0;
  EXPECT_EQ(commands_->read(&c, 1, SteadyClock::now() + milliseconds(20)), IoResult::kTimedOut);
}

TEST_F(NamedPipe, cancelReleasesEveryOperationAndStays) {
  auto read = std::async(std::launch::async, [this] {
    char c = 0;
    return events_->read(&c, 1, std::nullopt);
  });
  EXPECT_EQ(post(1), IoResult::kDone);
  auto flushed = std::async(std::launch::async, [this] { return events_->flush(); });
  auto answered = std::async(std::launch::async, [this] { return answer(); });
  events_->cancel();
  commands_->cancel();
  EXPECT_EQ(read.get(), IoResult::kCancelled);
  EXPECT_EQ(flushed.get(), IoResult::kCancelled);
  EXPECT_EQ(answered.get(), IoResult::kCancelled);
  EXPECT_EQ(post(1), IoResult::kCancelled);
  EXPECT_EQ(events_->flush(), IoResult::kCancelled);
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kCancelled);
  EXPECT_EQ(answer(), IoResult::kCancelled);
}

TEST_F(NamedPipe, everyOperationEndsWithTheDriver) {
  EXPECT_EQ(post(1), IoResult::kDone);
  auto flushed = std::async(std::launch::async, [this] { return events_->flush(); });
  auto read = std::async(std::launch::async, [this] {
    char c = 0;
    return events_->read(&c, 1, std::nullopt);
  });
  driver_.disconnect();
  EXPECT_EQ(flushed.get(), IoResult::kClosed);
  EXPECT_EQ(read.get(), IoResult::kClosed);
  EXPECT_EQ(post(1), IoResult::kClosed);
  EXPECT_EQ(commands_->awaitCommand(), IoResult::kClosed);
  EXPECT_EQ(answer(), IoResult::kClosed);
}

TEST_F(NamedPipe, postsThatTheDriverDidNotReadGoWithTheConnection) {
  EXPECT_EQ(post(1), IoResult::kDone);
  EXPECT_EQ(post(2), IoResult::kDone);
  events_.reset();
  EXPECT_EQ(driver_.readEvent(), std::nullopt);
}

TEST(PipeClient, tellsAbsentRefusedAndOpened) {
  const std::unique_ptr<PipeClientPort> port = makeSystemPipeClient();
  EXPECT_EQ(port->open(commandPipeName(0)).result, OpenResult::kAbsent);
  test::DriverEnd driver;
  const OpenedPipe opened = port->open(commandPipeName(0));
  EXPECT_EQ(opened.result, OpenResult::kOpened);
  EXPECT_NE(opened.connection, nullptr);
  const OpenedPipe refused = port->open(commandPipeName(0));
  EXPECT_EQ(refused.result, OpenResult::kRefused);
  EXPECT_EQ(refused.connection, nullptr);
  EXPECT_NE(refused.detail.find("zelta_smartcard_command0: "), std::string::npos);
}

TEST(PipeClient, waitEndsByLimitAndCancel) {
  const std::unique_ptr<PipeClientPort> port = makeSystemPipeClient();
  port->watch({commandPipeName(0)});
  port->waitForChange(milliseconds(1));
  port->cancel();
  const auto begin = SteadyClock::now();
  for (int wait = 0; wait < 1000; ++wait) port->waitForChange(std::nullopt);
  EXPECT_LT(SteadyClock::now() - begin, std::chrono::seconds(60));
}

}  // namespace
}  // namespace zelta::agent
