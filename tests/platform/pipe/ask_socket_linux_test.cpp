#include "platform/pipe/ask_socket_linux.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <thread>

#include "platform/files/scoped_fd_linux.h"
#include "tests/support/pipes/raw_socket_linux.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

using std::chrono::milliseconds;
using test::bindSocket;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kShort{50};
constexpr milliseconds kLong{120000};
constexpr std::size_t kLongest = 5000;

// Serves one client at a path, as the test says.
class Server {
 public:
  Server(const std::string& path, std::function<void(const ScopedFd& client)> serve)
      : listener_(bindSocket(path, 1)), thread_([this, serve = std::move(serve)] {
          const ScopedFd client(accept(listener_.get(), nullptr, nullptr));
          serve(client);
        }) {}
  ~Server() { thread_.join(); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 private:
  const ScopedFd listener_;
  std::thread thread_;
};

void say(const ScopedFd& client, const std::string& text) {
  send(client.get(), text.data(), text.size(), MSG_NOSIGNAL);
}

std::string hear(const ScopedFd& client) {
  std::string text(100, '\0');
  text.resize(recv(client.get(), text.data(), text.size(), 0));
  return text;
}

class AskSocket : public testing::Test {
 protected:
  SocketAnswer ask(milliseconds limit = kLong) {
    const auto begun = Clock::now();
    SocketAnswer answer =
        askSocket({folder_.file("none"), path_}, "how?\n", begun + limit, kLongest);
    took_ = Clock::now() - begun;
    return answer;
  }

  test::TempFolder folder_;
  const std::string path_ = folder_.file("socket");
  Clock::duration took_{};
};

TEST_F(AskSocket, FirstServerThatListens_IsAskedAndHeardToTheEnd) {
  const Server server(path_, [](const ScopedFd& client) {
    const std::string question = hear(client);
    say(client, "<" + question);
    say(client, std::string(kLongest - 7, 'x'));
    say(client, ">");
  });
  const SocketAnswer answer = ask();
  EXPECT_EQ(answer.error, 0);
  EXPECT_EQ(answer.text, "<how?\n" + std::string(kLongest - 7, 'x') + ">");
}

TEST_F(AskSocket, Nobody_IsKnownAtOnce) {
  EXPECT_EQ(ask().error, ENOENT);
  EXPECT_LT(took_, kLong);
  const ScopedFd dead = bindSocket(path_);
  EXPECT_EQ(ask().error, ECONNREFUSED);
  EXPECT_LT(took_, kLong);
}

TEST_F(AskSocket, ServerThatGoesWithoutReading_IsKnownAtOnce) {
  const Server server(path_, [](const ScopedFd&) {});
  const SocketAnswer answer = ask();
  EXPECT_TRUE(answer.text.empty());
  EXPECT_LT(took_, kLong);
}

TEST_F(AskSocket, ServerThatDoesNotAnswer_CostsTheLimit) {
  const ScopedFd still = bindSocket(path_, 1);
  EXPECT_EQ(ask(kShort).error, ETIMEDOUT);
  EXPECT_GE(took_, kShort);
}

TEST_F(AskSocket, ServerWhoseQueueIsFull_CostsTheLimit) {
  const ScopedFd still = bindSocket(path_, 0);
  ScopedFd first;
  ASSERT_EQ(test::connectSocket(path_, &first), 0);
  EXPECT_EQ(ask(kShort).error, ETIMEDOUT);
  EXPECT_GE(took_, kShort);
}

TEST_F(AskSocket, ServerThatAnswersByteByByte_CostsTheLimitInAll) {
  const Server server(path_, [](const ScopedFd& client) {
    hear(client);
    const timeval pause{0, 10000};  // well below the limit
    setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
    char none = 0;
    // Sends until the client is gone.
    while (send(client.get(), "x", 1, MSG_NOSIGNAL) == 1) {
      static_cast<void>(recv(client.get(), &none, 1, 0));
    }
  });
  const SocketAnswer answer = ask(kShort);
  EXPECT_EQ(answer.error, ETIMEDOUT);
  EXPECT_TRUE(answer.text.empty());
}

TEST_F(AskSocket, AnswerThatIsTooLong_IsRefusedBeforeItsEnd) {
  const Server server(path_, [](const ScopedFd& client) {
    hear(client);
    while (send(client.get(), "xxxxxxxx", 8, MSG_NOSIGNAL) == 8) {
    }
  });
  const SocketAnswer answer = ask();
  EXPECT_EQ(answer.error, EMSGSIZE);
  EXPECT_TRUE(answer.text.empty());
}

TEST_F(AskSocket, PathThatNoSocketCanHave_IsAnError) {
  EXPECT_EQ(askSocket({std::string(200, 'x')}, "", Clock::now() + kLong, kLongest).error,
            ENAMETOOLONG);
}

}  // namespace
}  // namespace zelta::platform
