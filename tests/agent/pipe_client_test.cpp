// The client ends on real sockets.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <future>

#include "agent/path_watch_linux.h"
#include "agent/pipe_connection_linux.h"
#include "tests/agent/driver_end.h"
#include "tests/agent/running_agent.h"

namespace zelta::agent {
namespace {

using platform::ScopedFd;
using std::chrono::milliseconds;

// A client end and the raw socket at the other end.
struct Ends {
  Ends() {
    std::array<int, 2> made{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, made.data()), 0);
    client = std::make_unique<SocketConnection>(ScopedFd(made[0]));
    driver.reset(made[1]);
  }

  std::unique_ptr<SocketConnection> client;
  ScopedFd driver;
};

TEST(PipeConnection, readsExactlyWhatIsAskedFor) {
  Ends ends;
  ASSERT_EQ(write(ends.driver.get(), "abcdef", 6), 6);
  std::string text(4, ' ');
  EXPECT_EQ(ends.client->read(text.data(), 4, std::nullopt), IoResult::Done);
  EXPECT_EQ(text, "abcd");
}

TEST(PipeConnection, readEndsAtItsDeadline) {
  Ends ends;
  ASSERT_EQ(write(ends.driver.get(), "ab", 2), 2);
  std::string text(4, ' ');
  EXPECT_EQ(ends.client->read(text.data(), 4, SteadyClock::now()), IoResult::TimedOut);
}

TEST(PipeConnection, readWriteAndFlushEndWithTheDriver) {
  Ends ends;
  EXPECT_EQ(ends.client->write("a", 1, std::nullopt), IoResult::Done);
  ends.driver.reset();
  std::string text(1, ' ');
  EXPECT_EQ(ends.client->read(text.data(), 1, std::nullopt), IoResult::Closed);
  EXPECT_EQ(ends.client->write("a", 1, std::nullopt), IoResult::Closed);
}

TEST(PipeConnection, flushOfWhatTheDriverNeverReadEndsWithTheDriver) {
  Ends ends;
  EXPECT_EQ(ends.client->write("a", 1, std::nullopt), IoResult::Done);
  auto flushed = std::async(std::launch::async, [&] { return ends.client->flush(); });
  ends.driver.reset();
  const IoResult result = flushed.get();
  EXPECT_TRUE(result == IoResult::Closed || result == IoResult::Done);
}

TEST(PipeConnection, flushReturnsWhenTheDriverHasReadEverything) {
  Ends ends;
  for (int round = 0; round < 500; ++round) {
    ASSERT_EQ(ends.client->write("abc", 3, std::nullopt), IoResult::Done);
    ASSERT_EQ(ends.client->write("d", 1, std::nullopt), IoResult::Done);
    auto flushed = std::async(std::launch::async, [&] { return ends.client->flush(); });
    std::array<char, 3> part{};
    ASSERT_EQ(read(ends.driver.get(), part.data(), 3), 3);
    ASSERT_EQ(read(ends.driver.get(), part.data(), 3), 1);
    ASSERT_EQ(flushed.get(), IoResult::Done);
  }
}

TEST(PipeConnection, cancelReleasesEveryOperationAndStays) {
  Ends ends;
  EXPECT_EQ(ends.client->write("a", 1, std::nullopt), IoResult::Done);
  const std::string much(1 << 22, 'x');
  auto read = std::async(std::launch::async, [&] {
    char c = 0;
    return ends.client->read(&c, 1, std::nullopt);
  });
  auto flushed = std::async(std::launch::async, [&] { return ends.client->flush(); });
  auto written = std::async(std::launch::async, [&] {
    return ends.client->write(much.data(), static_cast<std::uint32_t>(much.size()), std::nullopt);
  });
  ends.client->cancel();
  EXPECT_EQ(read.get(), IoResult::Cancelled);
  EXPECT_EQ(flushed.get(), IoResult::Cancelled);
  EXPECT_EQ(written.get(), IoResult::Cancelled);
  EXPECT_EQ(ends.client->write("a", 1, std::nullopt), IoResult::Cancelled);
}

TEST(PipeConnection, writeLargerThanTheSocketTakesWaitsForTheDriver) {
  Ends ends;
  const std::string much(1 << 22, 'x');
  auto written = std::async(std::launch::async, [&] {
    return ends.client->write(much.data(), static_cast<std::uint32_t>(much.size()), std::nullopt);
  });
  SocketConnection driver(std::move(ends.driver));
  std::string received(much.size(), ' ');
  EXPECT_EQ(driver.read(received.data(), static_cast<std::uint32_t>(received.size()), std::nullopt),
            IoResult::Done);
  EXPECT_EQ(written.get(), IoResult::Done);
  EXPECT_EQ(received, much);
}

TEST(PipeConnection, writeAndPostEndAtTheirDeadlineWhereTheSocketTakesNoMore) {
  Ends ends;
  const std::string much(1 << 22, 'x');
  const auto size = static_cast<std::uint32_t>(much.size());
  EXPECT_EQ(ends.client->write(much.data(), size, SteadyClock::now() + milliseconds(20)),
            IoResult::TimedOut);
  EXPECT_EQ(ends.client->post("a", 1, SteadyClock::now() + milliseconds(20)), IoResult::TimedOut);
}

TEST(PollTimeout, roundsUpAndNeverGoesBelowZero) {
  EXPECT_EQ(pollTimeout(std::nullopt), -1);
  EXPECT_EQ(pollTimeout(SteadyClock::now() - milliseconds(5)), 0);
  EXPECT_GT(pollTimeout(SteadyClock::now() + std::chrono::hours(24 * 365)), 0);
}

// Until the watch has news, with a bound so that a lost notice fails the test.
bool hasNews(PathWatch& watch) {
  for (;;) {
    pollfd wait{watch.fd(), POLLIN, 0};
    if (poll(&wait, 1, 30000) <= 0) return false;
    if (watch.takeNews()) return true;
  }
}

TEST(PathWatch, noticesFoldersOnTheWayAndTheFileItself) {
  test::TempFolder folder;
  const std::filesystem::path place = folder.path() / "a" / "b" / "file";
  PathWatch first({place.string()});
  std::filesystem::create_directory(folder.path() / "a");
  EXPECT_TRUE(hasNews(first));
  PathWatch second({place.string()});
  std::filesystem::create_directory(folder.path() / "a" / "b");
  EXPECT_TRUE(hasNews(second));
  PathWatch third({place.string()});
  std::ofstream(place) << "x";
  EXPECT_TRUE(hasNews(third));
  PathWatch fourth({place.string()});
  chmod(place.c_str(), S_IRUSR);
  EXPECT_TRUE(hasNews(fourth));
  PathWatch fifth({place.string()});
  std::filesystem::rename(place, folder.path() / "elsewhere");
  EXPECT_TRUE(hasNews(fifth));
  PathWatch sixth({place.string()});
  std::filesystem::rename(folder.path() / "elsewhere", place);
  EXPECT_TRUE(hasNews(sixth));
  EXPECT_TRUE(sixth.complete());
}

TEST(PathWatch, overlooksOtherFilesInTheSameFolder) {
  test::TempFolder folder;
  PathWatch watch({folder.file("file")});
  std::ofstream(folder.file("other")) << "x";
  EXPECT_FALSE(watch.takeNews());
  std::ofstream(folder.file("file")) << "x";
  EXPECT_TRUE(hasNews(watch));
}

TEST(PipeClient, tellsAbsentRefusedAndOpened) {
  test::PipeFolder folder;
  const std::unique_ptr<PipeClientPort> port = makeSystemPipeClient();
  EXPECT_EQ(port->open(commandPipeName(0)).result, OpenResult::Absent);
  test::DriverEnd driver;
  const OpenedPipe opened = port->open(commandPipeName(0));
  EXPECT_EQ(opened.result, OpenResult::Opened);
  EXPECT_NE(opened.connection, nullptr);
  const OpenedPipe events = port->open(eventPipeName(0));
  driver.accept();
  const OpenedPipe refused = port->open(commandPipeName(0));
  EXPECT_EQ(refused.result, OpenResult::Refused);
  EXPECT_EQ(refused.connection, nullptr);
  EXPECT_NE(refused.detail.find("zelta_smartcard_command0: "), std::string::npos);
}

TEST(PipeClient, waitEndsByChangeLimitAndCancel) {
  test::PipeFolder folder;
  const std::unique_ptr<PipeClientPort> port = makeSystemPipeClient();
  port->watch({commandPipeName(0)});
  port->waitForChange(milliseconds(1));
  auto waited = std::async(std::launch::async, [&] { port->waitForChange(std::nullopt); });
  test::DriverEnd driver;
  waited.get();
  port->watch({commandPipeName(0)});
  auto cancelled = std::async(std::launch::async, [&] { port->waitForChange(std::nullopt); });
  port->cancel();
  cancelled.get();
  port->waitForChange(std::nullopt);
}

}  // namespace
}  // namespace zelta::agent
