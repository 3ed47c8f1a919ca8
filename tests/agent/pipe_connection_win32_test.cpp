// The client ends on real named pipes without a buffer.
#include "agent/pipe_connection_win32.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "tests/agent/driver_end.h"

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;

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
    const auto bytes = encodeNumber(code);
    return events_->post(bytes.data(), bytes.size(), deadline);
  }

  test::DriverEnd driver_;
  std::unique_ptr<PipeClientPort> port_;
  std::unique_ptr<PipeConnection> commands_;
  std::unique_ptr<PipeConnection> events_;
};

TEST_F(NamedPipe, postsDoNotWaitForTheDriverAndKeepTheirOrder) {
  for (std::uint32_t code = 0; code < NamedPipeConnection::kMostPosts; ++code) {
    ASSERT_EQ(post(code), IoResult::Done);
  }
  expectEvents(0, NamedPipeConnection::kMostPosts);
}

TEST_F(NamedPipe, fullPipeIsWaitedForUntilTheDeadline) {
  for (std::uint32_t code = 0; code < NamedPipeConnection::kMostPosts; ++code) {
    ASSERT_EQ(post(code), IoResult::Done);
  }
  EXPECT_EQ(post(9999, SteadyClock::now() + milliseconds(20)), IoResult::TimedOut);
  auto posted = std::async(std::launch::async, [this] {
    const IoResult result = post(1000);
    // The thread's end would take back what the driver has not read.
    return result == IoResult::Done ? events_->flush() : result;
  });
  expectEvents(0, NamedPipeConnection::kMostPosts);
  expectEvents(1000, 1);
  EXPECT_EQ(posted.get(), IoResult::Done);
}

TEST_F(NamedPipe, readRunsBesidePosts) {
  auto read = std::async(std::launch::async, [this] {
    std::uint8_t byte = 0;
    const IoResult result = events_->read(&byte, 1, std::nullopt);
    return result == IoResult::Done ? byte : std::uint8_t{0};
  });
  EXPECT_EQ(post(1), IoResult::Done);
  EXPECT_TRUE(driver_.writeToEventPipe({42}));
  EXPECT_EQ(read.get(), 42);
  expectEvents(1, 1);
}

TEST_F(NamedPipe, flushWaitsUntilTheDriverHasReadEveryPost) {
  EXPECT_EQ(events_->flush(), IoResult::Done);  // nothing posted
  EXPECT_EQ(post(1), IoResult::Done);
  EXPECT_EQ(post(2), IoResult::Done);
  auto flushed = std::async(std::launch::async, [this] { return events_->flush(); });
  expectEvents(1, 1);
  EXPECT_NE(flushed.wait_for(milliseconds(20)), std::future_status::ready);
  expectEvents(2, 1);
  EXPECT_EQ(flushed.get(), IoResult::Done);
}

TEST_F(NamedPipe, writeEndsAtItsDeadlineWhereTheDriverDoesNotRead) {
  EXPECT_EQ(commands_->write("abcd", 4, SteadyClock::now() + milliseconds(20)), IoResult::TimedOut);
}

TEST_F(NamedPipe, readEndsAtItsDeadline) {
  char c = 0;
  EXPECT_EQ(commands_->read(&c, 1, SteadyClock::now() + milliseconds(20)), IoResult::TimedOut);
}

TEST_F(NamedPipe, cancelReleasesEveryOperationAndStays) {
  auto read = std::async(std::launch::async, [this] {
    char c = 0;
    return events_->read(&c, 1, std::nullopt);
  });
  EXPECT_EQ(post(1), IoResult::Done);
  auto flushed = std::async(std::launch::async, [this] { return events_->flush(); });
  auto written =
      std::async(std::launch::async, [this] { return commands_->write("abcd", 4, std::nullopt); });
  events_->cancel();
  commands_->cancel();
  EXPECT_EQ(read.get(), IoResult::Cancelled);
  EXPECT_EQ(flushed.get(), IoResult::Cancelled);
  EXPECT_EQ(written.get(), IoResult::Cancelled);
  EXPECT_EQ(post(1), IoResult::Cancelled);
  EXPECT_EQ(events_->flush(), IoResult::Cancelled);
  EXPECT_EQ(commands_->write("abcd", 4, std::nullopt), IoResult::Cancelled);
}

TEST_F(NamedPipe, everyOperationEndsWithTheDriver) {
  EXPECT_EQ(post(1), IoResult::Done);
  auto flushed = std::async(std::launch::async, [this] { return events_->flush(); });
  auto read = std::async(std::launch::async, [this] {
    char c = 0;
    return events_->read(&c, 1, std::nullopt);
  });
  driver_.disconnect();
  EXPECT_EQ(flushed.get(), IoResult::Closed);
  EXPECT_EQ(read.get(), IoResult::Closed);
  EXPECT_EQ(post(1), IoResult::Closed);
  EXPECT_EQ(commands_->write("abcd", 4, std::nullopt), IoResult::Closed);
}

TEST_F(NamedPipe, postsThatTheDriverDidNotReadGoWithTheConnection) {
  EXPECT_EQ(post(1), IoResult::Done);
  EXPECT_EQ(post(2), IoResult::Done);
  events_.reset();
  EXPECT_EQ(driver_.readEvent(), std::nullopt);
}

TEST(PipeClient, tellsAbsentRefusedAndOpened) {
  const std::unique_ptr<PipeClientPort> port = makeSystemPipeClient();
  EXPECT_EQ(port->open(commandPipeName(0)).result, OpenResult::Absent);
  test::DriverEnd driver;
  const OpenedPipe opened = port->open(commandPipeName(0));
  EXPECT_EQ(opened.result, OpenResult::Opened);
  EXPECT_NE(opened.connection, nullptr);
  const OpenedPipe refused = port->open(commandPipeName(0));
  EXPECT_EQ(refused.result, OpenResult::Refused);
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
