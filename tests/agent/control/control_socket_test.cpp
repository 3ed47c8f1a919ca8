#include "agent/control/control_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/socket_place_linux.h"
#include "tests/agent/running_agent.h"
#include "tests/support/temp_folder.h"

namespace zelta::agent {
namespace {

using platform::ScopedFd;
using test::TempFolder;

std::string echo(const std::string& line) { return "<" + line + ">"; }

// A raw client.
ScopedFd connectTo(const std::string& path) {
  ScopedFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(platform::connectToPath(client, path), 0);
  return client;
}

std::string readAll(const ScopedFd& client) {
  std::string text;
  char c = 0;
  while (read(client.get(), &c, 1) == 1) text += c;
  return text;
}

// What the call throws.
template <typename Call>
std::string problemOf(Call call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
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
  EXPECT_EQ(problemOf([&] { openControlServer(path_, echo, test::failTest); }),
            "another agent is running: it has the control path " + path_);
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlSocket, DeadSocket_IsReplaced) {
  std::filesystem::create_directories(folder_.path() / "sub");
  {
    ScopedFd dead(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(dead.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  const auto server = openControlServer(path_, echo, test::failTest);
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlSocket, FileThatIsNoSocket_Stays) {
  const std::string file = folder_.file("file");
  std::ofstream(file) << "precious";
  EXPECT_EQ(problemOf([&] { openControlServer(file, echo, test::failTest); }),
            "the control path " + file + ": Address already in use");
  EXPECT_TRUE(std::filesystem::is_regular_file(file));
}

TEST_F(ControlSocket, PathThatIsTooLong_IsRefused) {
  const std::string longPath = folder_.file(std::string(120, 'x'));
  EXPECT_EQ(problemOf([&] { openControlServer(longPath, echo, test::failTest); }),
            "the control path '" + longPath + "' cannot be used: File name too long");
}

TEST_F(ControlSocket, ClientThatAsksForTooMuch_IsDropped) {
  const auto server = openControlServer(path_, echo, test::failTest);
  const ScopedFd client = connectTo(path_);
  const std::string much(kLongestControlLine + 1, 'x');
  ASSERT_EQ(send(client.get(), much.data(), much.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(much.size()));
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlSocket, ClientThatOnlyClosesItsSide_IsAnswered) {
  const auto server = openControlServer(path_, echo, test::failTest);
  const ScopedFd client = connectTo(path_);
  ASSERT_EQ(send(client.get(), "ab", 2, MSG_NOSIGNAL), 2);
  shutdown(client.get(), SHUT_WR);
  EXPECT_EQ(readAll(client), "<ab>");
}

TEST_F(ControlSocket, ClientThatGoesWithoutWaiting_HarmsNothing) {
  const auto server = openControlServer(path_, echo, test::failTest);
  for (int i = 0; i < 20; ++i) {
    const ScopedFd client = connectTo(path_);
    ASSERT_EQ(send(client.get(), "x\n", 2, MSG_NOSIGNAL), 2);
  }
  EXPECT_EQ(askAgent({path_}, "x\n"), "<x>");
}

TEST_F(ControlSocket, ClientThatSaysNothing_DoesNotHoldUpTheEnd) {
  auto server = openControlServer(path_, echo, test::failTest);
  const ScopedFd client = connectTo(path_);
  server.reset();
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlSocket, FirstPathWithAnAgent_IsAsked) {
  const auto server = openControlServer(path_, echo, test::failTest);
  EXPECT_EQ(askAgent({folder_.file("none"), path_}, "x\n"), "<x>");
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

TEST_F(ControlSocket, NoAgent_IsAMessage) {
  EXPECT_EQ(problemOf([&] { askAgent({path_}, "x\n"); }), "no agent is running at " + path_);
}

}  // namespace
}  // namespace zelta::agent
