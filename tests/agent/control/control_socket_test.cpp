#include "agent/control/control_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "tests/agent/running_agent.h"
#include "tests/support/pipes/raw_socket_linux.h"
#include "tests/support/shared.h"
#include "tests/support/temp_folder.h"

namespace zelta::agent {
namespace {

using platform::ScopedFd;
using test::TempFolder;

std::string echo(const std::string& line) { return "<" + line + ">"; }

ScopedFd connectTo(const std::string& path) {
  ScopedFd client;
  EXPECT_EQ(test::connectSocket(path, &client), 0);
  return client;
}

void sendAll(const ScopedFd& client, const std::string& text) {
  EXPECT_EQ(send(client.get(), text.data(), text.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(text.size()));
}

std::string readLines(const ScopedFd& client, int count) {
  std::string text;
  char c = 0;
  while (count > 0 && read(client.get(), &c, 1) == 1) {
    text += c;
    if (c == '\n') --count;
  }
  return text;
}

std::string readAll(const ScopedFd& client) {
  return readLines(client, std::numeric_limits<int>::max());
}

// Expects that the path cannot be served, for this reason.
void expectRefused(const std::string& path, const std::string& problem) {
  EXPECT_THAT([&] { openControlServer(path, echo, test::failTest); },
              testing::ThrowsMessage<std::runtime_error>(problem));
}

class ControlSocket : public testing::Test {
 protected:
  TempFolder folder_;
  const std::string path_ = folder_.file("sub/agent.ctl");
};

TEST_F(ControlSocket, Clients_AreAnsweredOneAfterTheOther) {
  const auto server = openControlServer(path_, echo, test::failTest);
  EXPECT_EQ(askAgent({path_}, "one\n"), "<one>");
  EXPECT_EQ(askAgent({path_}, "two\n"), "<two>");
}

TEST_F(ControlSocket, Socket_IsForItsOwnerOnlyAndGoesWithTheServer) {
  {
    const auto server = openControlServer(path_, echo, test::failTest);
    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0600u);
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ControlSocket, LiveSocket_IsLeftToItsAgent) {
  const auto server = openControlServer(path_, echo, test::failTest);
  expectRefused(path_, "another agent is running: it has the control path " + path_);
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlSocket, DeadSocket_IsReplaced) {
  std::filesystem::create_directories(folder_.path() / "sub");
  ASSERT_GE(test::bindSocket(path_).get(), 0);
  const auto server = openControlServer(path_, echo, test::failTest);
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlSocket, FileThatIsNoSocket_Stays) {
  const std::string file = folder_.file("file");
  std::ofstream(file) << "precious";
  expectRefused(file, "the control path " + file + ": Address already in use");
  EXPECT_TRUE(std::filesystem::is_regular_file(file));
}

TEST_F(ControlSocket, PathThatIsTooLong_IsRefused) {
  const std::string longPath = folder_.file(std::string(120, 'x'));
  expectRefused(longPath, "the control path '" + longPath + "' cannot be used: File name too long");
}

TEST_F(ControlSocket, ClientThatAsksForTooMuch_IsDropped) {
  const auto server = openControlServer(path_, echo, test::failTest);
  const ScopedFd client = connectTo(path_);
  sendAll(client, std::string(kLongestControlLine + 1, 'x'));
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlSocket, ClientThatOnlyClosesItsSide_IsAnswered) {
  const auto server = openControlServer(path_, echo, test::failTest);
  const ScopedFd client = connectTo(path_);
  sendAll(client, "ab");
  shutdown(client.get(), SHUT_WR);
  EXPECT_EQ(readAll(client), "<ab>");
}

TEST_F(ControlSocket, ClientThatGoesWithoutWaiting_HarmsNothing) {
  const auto server = openControlServer(path_, echo, test::failTest);
  for (int i = 0; i < 20; ++i) {
    const ScopedFd client = connectTo(path_);
    sendAll(client, "x\n");
  }
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlSocket, ClientThatSaysNothing_DoesNotHoldUpTheEnd) {
  auto server = openControlServer(path_, echo, test::failTest);
  const ScopedFd client = connectTo(path_);
  server.reset();
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlSocket, Link_LeadsToTheSocketAndGoesWithTheServer) {
  const std::string link = folder_.file("other/link");
  {
    const auto server = openControlServer(path_, echo, test::failTest, link);
    EXPECT_EQ(askAgent({link}, "x\n"), "<x>");
  }
  EXPECT_FALSE(std::filesystem::is_symlink(link));
}

TEST_F(ControlSocket, LinkOfAnotherAgent_IsReplacedAndThenItsOwn) {
  const std::string link = folder_.file("link");
  std::filesystem::create_symlink(folder_.file("dead"), link);
  auto first = openControlServer(path_, echo, test::failTest, link);
  EXPECT_EQ(askAgent({link}, "x\n"), "<x>");
  const std::string path = folder_.file("second.ctl");
  const auto second = openControlServer(path, echo, test::failTest, link);
  first.reset();
  EXPECT_EQ(std::filesystem::read_symlink(link), path);
}

TEST_F(ControlSocket, LinkThatCannotBeMade_IsGoneWithout) {
  std::ofstream(folder_.file("file")) << "precious";
  const auto server = openControlServer(path_, echo, test::failTest, folder_.file("file/link"));
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

// Gives the same text to each of its feeds.
class Bulletin {
 public:
  class Feed final : public ControlFeed {
   public:
    Feed(Bulletin& bulletin, std::function<void()> wake)
        : bulletin_(bulletin), wake_(std::move(wake)) {
      bulletin_.state_.lock()->feeds.push_back(this);
    }
    ~Feed() override {
      const auto state = bulletin_.state_.lock();
      state->feeds.erase(std::remove(state->feeds.begin(), state->feeds.end(), this),
                         state->feeds.end());
    }
    std::string take() override {
      const auto state = bulletin_.state_.lock();
      return std::exchange(text_, {});
    }

   private:
    friend class Bulletin;
    Bulletin& bulletin_;
    const std::function<void()> wake_;
    std::string text_ = "first\n";  // for the holder of the bulletin's lock
  };

  OpenFeed opener() {
    return [this](const std::string& line, std::function<void()> wake) {
      state_.lock()->asked += "<" + line + ">";
      return std::make_unique<Feed>(*this, std::move(wake));
    };
  }
  void tell(const std::string& text) {
    const auto state = state_.lock();
    for (Feed* feed : state->feeds) {
      feed->text_ += text;
      feed->wake_();
    }
  }
  void waitForFeeds(std::size_t count) {
    state_.lock().wait([count](const State& now) { return now.feeds.size() == count; });
  }
  std::string asked() { return state_.lock()->asked; }

 private:
  struct State {
    std::vector<Feed*> feeds;
    std::string asked;
  };

  test::Shared<State> state_;
};

ScopedFd ask(const std::string& path, const std::string& line) {
  ScopedFd client = connectTo(path);
  sendAll(client, line);
  return client;
}

class ControlFeeds : public ControlSocket {
 protected:
  ControlFeeds()
      : server_(openControlServer(path_, echo, test::failTest, {}, bulletin_.opener())) {}

  Bulletin bulletin_;
  std::unique_ptr<ControlServer> server_;
};

TEST_F(ControlFeeds, Client_IsToldWhatComesWhileOthersAreAnswered) {
  const ScopedFd plain = ask(path_, "trace\n");
  const ScopedFd secret = ask(path_, "trace secrets\n");
  EXPECT_EQ(readLines(plain, 2), "ok\nfirst\n");
  EXPECT_EQ(readLines(secret, 2), "ok\nfirst\n");
  EXPECT_EQ(bulletin_.asked(), "<trace><trace secrets>");
  bulletin_.tell("more\n");
  EXPECT_EQ(readLines(plain, 1), "more\n");
  EXPECT_EQ(readLines(secret, 1), "more\n");
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlFeeds, ClientThatLeaves_IsForgottenAtOnce) {
  {
    const ScopedFd client = ask(path_, "trace\n");
    EXPECT_EQ(readLines(client, 2), "ok\nfirst\n");
  }
  bulletin_.waitForFeeds(0);
}

TEST_F(ControlFeeds, MoreThanSoMany_AreRefusedUntilOneLeaves) {
  std::vector<ScopedFd> clients;
  for (std::size_t i = 0; i < kMostFeeds; ++i) {
    clients.push_back(ask(path_, "trace\n"));
    EXPECT_EQ(readLines(clients.back(), 2), "ok\nfirst\n");
  }
  EXPECT_EQ(readAll(ask(path_, "trace\n")), "error: 4 traces are being followed\n");
  clients.pop_back();
  bulletin_.waitForFeeds(kMostFeeds - 1);
  std::string answer;  // the client's thread may be about to end
  while (answer != "ok\nfirst\n") {
    const ScopedFd client = ask(path_, "trace\n");
    answer = readLines(client, 1);
    if (answer == "ok\n") answer += readLines(client, 1);
  }
}

TEST_F(ControlFeeds, ClientThatDoesNotRead_DoesNotHoldUpTheEnd) {
  const ScopedFd client = ask(path_, "trace\n");
  EXPECT_EQ(readLines(client, 2), "ok\nfirst\n");
  bulletin_.tell(std::string(std::size_t{8} << 20, 'x'));
  server_.reset();
  bulletin_.waitForFeeds(0);
}

TEST_F(ControlSocket, ServerWithoutFeeds_LeavesTheLineToItsHandler) {
  const auto server = openControlServer(path_, echo, test::failTest);
  EXPECT_EQ(askAgent({path_}, "trace\n"), "<trace>");
}

TEST_F(ControlSocket, NoAgent_IsAMessage) {
  EXPECT_THAT([this] { askAgent({path_}, "x\n"); },
              testing::ThrowsMessage<std::runtime_error>("no agent is running at " + path_));
}

}  // namespace
}  // namespace zelta::agent
