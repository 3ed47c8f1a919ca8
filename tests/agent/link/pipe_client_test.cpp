// The client ends on real sockets.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <future>

#include "agent/platform/pipe_connection_linux.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/running_agent.h"

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
  EXPECT_EQ(ends.client->read(text.data(), 4, std::nullopt), IoResult::kDone);
  EXPECT_EQ(text, "abcd");
}

TEST(PipeConnection, readEndsAtItsDeadline) {
  Ends ends;
  ASSERT_EQ(write(ends.driver.get(), "ab", 2), 2);
  std::string text(4, ' ');
  EXPECT_EQ(ends.client->read(text.data(), 4, SteadyClock::now()), IoResult::kTimedOut);
}

IoResult answer(Ends& ends, const std::string& text) {
  return ends.client->answer(Bytes(text.begin(), text.end()), SteadyClock::now() + test::kLong);
}

// What the driver has not read yet, as far as it has come.
std::string takeArrived(const Ends& ends) {
  std::string text(64, ' ');
  const ssize_t count = recv(ends.driver.get(), text.data(), text.size(), MSG_DONTWAIT);
  text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return text;
}

TEST(PipeConnection, commandIsAwaitedAndNotTouched) {
  Ends ends;
  auto awaited = std::async(std::launch::async, [&] { return ends.client->awaitCommand(); });
  ASSERT_EQ(write(ends.driver.get(), "abcd", 4), 4);
  EXPECT_EQ(awaited.get(), IoResult::kDone);
  std::string text(4, ' ');
  EXPECT_EQ(ends.client->read(text.data(), 4, std::nullopt), IoResult::kDone);
  EXPECT_EQ(text, "abcd");
}

TEST(PipeConnection, answerIsItsLengthAndItsBytes) {
  Ends ends;
  EXPECT_EQ(answer(ends, "ab"), IoResult::kDone);
  EXPECT_EQ(takeArrived(ends), std::string("\2\0\0\0ab", 6));
  EXPECT_EQ(answer(ends, ""), IoResult::kDone);
  EXPECT_EQ(takeArrived(ends), std::string("\0\0\0\0", 4));
}

TEST(PipeConnection, bytesBehindACommandGiveItsAnswerUp) {
  Ends ends;
  ASSERT_EQ(write(ends.driver.get(), "x", 1), 1);
  EXPECT_EQ(answer(ends, "ab"), IoResult::kGivenUp);
  EXPECT_EQ(takeArrived(ends), "");
}

// The driver has read `part` bytes of the answer when it begins the next command.
TEST(PipeConnection, commandBeforeTheAnswerIsReadGivesItUpUntouched) {
  for (const std::size_t part : {0u, 1u, 4u, 5u}) {
    Ends ends;
    EXPECT_EQ(answer(ends, "ab"), IoResult::kDone);
    std::string text(part, ' ');
    ASSERT_EQ(read(ends.driver.get(), text.data(), part), static_cast<ssize_t>(part));
    ASSERT_EQ(write(ends.driver.get(), "x", 1), 1);
    EXPECT_EQ(ends.client->awaitCommand(), IoResult::kGivenUp);
    std::string command(1, ' ');
    EXPECT_EQ(ends.client->read(command.data(), 1, std::nullopt), IoResult::kDone);  // still there
  }
}

TEST(PipeConnection, commandWhileTheAnswerDoesNotFitGivesItUp) {
  Ends ends;
  auto answered = std::async(std::launch::async,
                             [&] { return answer(ends, std::string(std::size_t{1} << 22, 'x')); });
  pollfd begun{ends.driver.get(), POLLIN, 0};
  ASSERT_EQ(poll(&begun, 1, -1), 1);
  ASSERT_EQ(write(ends.driver.get(), "x", 1), 1);
  EXPECT_EQ(answered.get(), IoResult::kGivenUp);
}

// The kernel counts what the driver has read a moment late, but never so late that the next command
// finds it counted as unread.
TEST(PipeConnection, quickExchangesAreNeverTakenForGivenUp) {
  Ends ends;
  constexpr int kExchanges = 20000;
  auto driver = std::async(std::launch::async, [&ends] {
    SocketConnection end(std::move(ends.driver));
    std::array<char, 8> bytes{};
    bool good = true;
    for (int i = 0; i < kExchanges && good; ++i) {
      good = end.post("abcd", 4, std::nullopt) == IoResult::kDone &&
             end.read(bytes.data(), 4, std::nullopt) == IoResult::kDone &&
             end.read(bytes.data(), 2, std::nullopt) == IoResult::kDone;
    }
    return good;
  });
  std::array<char, 4> command{};
  for (int i = 0; i < kExchanges; ++i) {
    ASSERT_EQ(ends.client->awaitCommand(), IoResult::kDone);
    ASSERT_EQ(ends.client->read(command.data(), 4, std::nullopt), IoResult::kDone);
    ASSERT_EQ(answer(ends, "ab"), IoResult::kDone);
  }
  EXPECT_TRUE(driver.get());
}

TEST(PipeConnection, everyOperationEndsWithTheDriver) {
  Ends ends;
  EXPECT_EQ(answer(ends, "a"), IoResult::kDone);
  ends.driver.reset();
  std::string text(1, ' ');
  EXPECT_EQ(ends.client->awaitCommand(), IoResult::kClosed);
  EXPECT_EQ(ends.client->read(text.data(), 1, std::nullopt), IoResult::kClosed);
  EXPECT_EQ(ends.client->post("a", 1, std::nullopt), IoResult::kClosed);
  EXPECT_EQ(answer(ends, "a"), IoResult::kClosed);
}

TEST(PipeConnection, flushOfWhatTheDriverNeverReadEndsWithTheDriver) {
  Ends ends;
  EXPECT_EQ(ends.client->post("a", 1, std::nullopt), IoResult::kDone);
  auto flushed = std::async(std::launch::async, [&] { return ends.client->flush(); });
  ends.driver.reset();
  const IoResult result = flushed.get();
  EXPECT_TRUE(result == IoResult::kClosed || result == IoResult::kDone);
}

TEST(PipeConnection, flushReturnsWhenTheDriverHasReadEverything) {
  Ends ends;
  for (int round = 0; round < 500; ++round) {
    ASSERT_EQ(ends.client->post("abc", 3, std::nullopt), IoResult::kDone);
    ASSERT_EQ(ends.client->post("d", 1, std::nullopt), IoResult::kDone);
    auto flushed = std::async(std::launch::async, [&] { return ends.client->flush(); });
    std::array<char, 3> part{};
    ASSERT_EQ(read(ends.driver.get(), part.data(), 3), 3);
    ASSERT_EQ(read(ends.driver.get(), part.data(), 3), 1);
    ASSERT_EQ(flushed.get(), IoResult::kDone);
  }
}

TEST(PipeConnection, cancelReleasesEveryOperationAndStays) {
  Ends ends;
  EXPECT_EQ(ends.client->post("a", 1, std::nullopt), IoResult::kDone);
  const std::string much(1 << 22, 'x');
  auto awaited = std::async(std::launch::async, [&] { return ends.client->awaitCommand(); });
  auto flushed = std::async(std::launch::async, [&] { return ends.client->flush(); });
  auto answered = std::async(std::launch::async, [&] { return answer(ends, much); });
  ends.client->cancel();
  EXPECT_EQ(awaited.get(), IoResult::kCancelled);
  EXPECT_EQ(flushed.get(), IoResult::kCancelled);
  EXPECT_EQ(answered.get(), IoResult::kCancelled);
  char c = 0;
  EXPECT_EQ(ends.client->read(&c, 1, std::nullopt), IoResult::kCancelled);
  EXPECT_EQ(ends.client->post("a", 1, std::nullopt), IoResult::kCancelled);
  EXPECT_EQ(answer(ends, "a"), IoResult::kCancelled);
}

TEST(PipeConnection, answerLargerThanTheSocketTakesWaitsForTheDriver) {
  Ends ends;
  const std::string much(1 << 22, 'x');
  auto answered = std::async(std::launch::async, [&] { return answer(ends, much); });
  SocketConnection driver(std::move(ends.driver));
  std::string received(4 + much.size(), ' ');
  EXPECT_EQ(driver.read(received.data(), static_cast<std::uint32_t>(received.size()), std::nullopt),
            IoResult::kDone);
  EXPECT_EQ(answered.get(), IoResult::kDone);
  EXPECT_EQ(received.substr(4), much);
}

TEST(PipeConnection, answerAndPostEndAtTheirDeadlineWhereTheSocketTakesNoMore) {
  Ends ends;
  const Bytes much(1 << 22);
  EXPECT_EQ(ends.client->answer(much, SteadyClock::now() + milliseconds(20)), IoResult::kTimedOut);
  EXPECT_EQ(ends.client->post("a", 1, SteadyClock::now() + milliseconds(20)), IoResult::kTimedOut);
}

// Single bytes before the events shift the point at which the socket is full.
TEST(PipeConnection, eventThatTimedOutIsNotHandedOverInPart) {
  for (std::uint32_t shift = 0; shift < 4; ++shift) {
    Ends ends;
    const auto post = [&](const void* data, std::uint32_t size) {
      return ends.client->post(data, size, SteadyClock::now() - milliseconds(1));
    };
    const auto postEvent = [&](std::uint32_t number) { return post(&number, sizeof number); };
    for (std::uint32_t i = 0; i < shift; ++i) ASSERT_EQ(post("x", 1), IoResult::kDone);
    std::uint32_t posted = 0;
    while (postEvent(posted) == IoResult::kDone) ++posted;
    ASSERT_EQ(postEvent(posted), IoResult::kTimedOut);
    std::array<char, 4> single{};
    ASSERT_EQ(read(ends.driver.get(), single.data(), shift), static_cast<ssize_t>(shift));
    for (std::uint32_t expected = 0; expected < posted; ++expected) {
      std::uint32_t event = 0;
      ASSERT_EQ(read(ends.driver.get(), &event, sizeof event), 4);
      ASSERT_EQ(event, expected);
    }
    EXPECT_EQ(takeArrived(ends), "");
  }
}

TEST(PollTimeout, roundsUpAndNeverGoesBelowZero) {
  EXPECT_EQ(pollTimeout(std::nullopt), -1);
  EXPECT_EQ(pollTimeout(SteadyClock::now() - milliseconds(5)), 0);
  EXPECT_GT(pollTimeout(SteadyClock::now() + std::chrono::hours(24 * 365)), 0);
}

TEST(PipeClient, tellsAbsentRefusedAndOpened) {
  test::PipeFolder folder;
  const std::unique_ptr<PipeClientPort> port = makeSystemPipeClient();
  EXPECT_EQ(port->open(commandPipeName(0)).result, OpenResult::kAbsent);
  test::DriverEnd driver;
  const OpenedPipe opened = port->open(commandPipeName(0));
  EXPECT_EQ(opened.result, OpenResult::kOpened);
  EXPECT_NE(opened.connection, nullptr);
  const OpenedPipe events = port->open(eventPipeName(0));
  driver.accept();
  const OpenedPipe refused = port->open(commandPipeName(0));
  EXPECT_EQ(refused.result, OpenResult::kRefused);
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
