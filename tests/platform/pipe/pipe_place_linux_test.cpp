// A pipe's place in the file system: what is replaced, what stays untouched, what is left behind.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <vector>

#include "platform/process/error.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/raw_socket_linux.h"

namespace zelta::test {

namespace {

using platform::ScopedFd;
using testing::AnyOf;
namespace fs = std::filesystem;

constexpr mode_t kPermissions = 07777;

mode_t modeOf(const fs::path& path) {
  struct stat found {};
  EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
  return found.st_mode & kPermissions;
}

ino_t inodeOf(const fs::path& path) {
  struct stat found {};
  EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
  return found.st_ino;
}

class PipePlaceTest : public SystemPipeTest {
 protected:
  // The folder that the pipe's socket is in.
  fs::path parent() { return fs::path(path()).parent_path(); }
  void makeParent() { fs::create_directories(parent()); }
  std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(parent())) {
      found.push_back(entry.path().filename().string());
    }
    return found;
  }
};

TEST_F(PipePlaceTest, CreateMakesTheFoldersForTheOwnUserOnly) {
  const mode_t before = umask(0);
  createPipe();
  umask(before);
  EXPECT_EQ(modeOf(path()), 0600U);
  for (fs::path made = parent(); made != folder_.path(); made = made.parent_path()) {
    EXPECT_EQ(modeOf(made), 0700U) << made;
  }
  EXPECT_TRUE(fs::is_socket(path()));
}

TEST_F(PipePlaceTest, TightUmaskDoesNotMatter) {
  const mode_t before = umask(0777);
  createPipe();
  umask(before);
  EXPECT_EQ(modeOf(path()), 0600U);
  EXPECT_EQ(modeOf(parent()), 0700U);
  connected();
}

TEST_F(PipePlaceTest, FoldersThatExistKeepTheirMode) {
  makeParent();
  fs::permissions(parent(), fs::perms(0751));
  createPipe();
  EXPECT_EQ(modeOf(parent()), 0751U);
}

TEST_F(PipePlaceTest, FolderBehindALinkIsUsed) {
  fs::create_directories(folder_.path() / "elsewhere");
  fs::create_directory_symlink(folder_.path() / "elsewhere", folder_.path() / "root");
  createPipe();
  connected();
  EXPECT_TRUE(fs::exists(folder_.path() / "elsewhere/pipe/Prefix/Service/pipe0"));
}

TEST_F(PipePlaceTest, FileInPlaceOfAFolderIsRefused) {
  std::ofstream(folder_.file("root")) << "text";
  expectRefused(error::kFileNotFound);
}

TEST_F(PipePlaceTest, RelativeRootMeansTheFolderAtCreation) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  {
    const ScopedVariable root("ZELTA_PIPE_ROOT", "relative");
    createPipe();
  }
  fs::current_path(before);
  const fs::path socket = folder_.path() / "relative/Prefix/Service/pipe0";
  EXPECT_TRUE(fs::is_socket(socket));
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  EXPECT_FALSE(fs::exists(socket));
}

TEST_F(PipePlaceTest, CloseLeavesNothingBehind) {
  createPipe();
  EXPECT_EQ(names(), std::vector<std::string>{"pipe0"});
  PipeClient client = connected();
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(names(), std::vector<std::string>{"pipe0"});
  EXPECT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  EXPECT_TRUE(names().empty());
}

TEST_F(PipePlaceTest, CloseWhileAClientIsConnectedRemovesThePath) {
  createPipe();
  PipeClient client = connected();
  EXPECT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  EXPECT_TRUE(names().empty());
}

TEST_F(PipePlaceTest, LeftoverOfASocketThatIsGoneIsReplaced) {
  makeParent();
  ASSERT_TRUE(bindSocket(path(), 1));
  ASSERT_TRUE(fs::is_socket(path()));
  createPipe();
  connected();
}

TEST_F(PipePlaceTest, LeftoversOfAKilledProcessAreReplaced) {
  ASSERT_EQ(inProcess([this] {
              pipe_ = create();
              return pipe_ == platform::invalidPipe() ? 1 : 0;
            }),
            0);
  pipe_ = platform::noPipe();
  ASSERT_TRUE(bindSocket(path() + '~')) << "as if it was killed while it took the name";
  createPipe();
  EXPECT_EQ(names(), std::vector<std::string>{"pipe0"});
  connected();
}

TEST_F(PipePlaceTest, LiveSocketOfAStrangerStaysUntouchedAndNoticesNothing) {
  makeParent();
  const ScopedFd stranger = bindSocket(path(), 5);
  const ino_t before = inodeOf(path());
  expectRefused(error::kAccessDenied);
  EXPECT_TRUE(nobodyWaits(stranger));
  EXPECT_EQ(inodeOf(path()), before);
  EXPECT_EQ(names(), std::vector<std::string>{"pipe0"});
  ScopedFd client;
  EXPECT_EQ(connectSocket(path(), &client), 0);
}

TEST_F(PipePlaceTest, BoundSocketThatDoesNotListenYetStaysUntouched) {
  makeParent();
  const ScopedFd stranger = bindSocket(path());
  expectRefused(error::kAccessDenied);
  EXPECT_TRUE(fs::is_socket(path()));
}

TEST_F(PipePlaceTest, PipeOfAnotherProcessStaysUntouchedInEveryState) {
  {
    const OtherProcess idle([this] { return create() != platform::invalidPipe(); });
    ASSERT_TRUE(idle.ready());
    expectRefused(error::kAccessDenied);
    PipeClient client;
    EXPECT_TRUE(client.connect(kPipeName));
  }
  const OtherProcess serving([this] {
    pipe_ = create();
    PipeClient own;
    return own.connect(kPipeName) && connectPipe().error == error::kPipeConnected;
  });
  ASSERT_TRUE(serving.ready());
  expectRefused(error::kAccessDenied);
  PipeClient client;
  EXPECT_FALSE(client.connect(kPipeName));
  EXPECT_EQ(client.error(), ECONNREFUSED);
}

TEST_F(PipePlaceTest, ThingsThatAreNoSocketStayUntouched) {
  makeParent();
  std::ofstream(path()) << "text";
  expectRefused(error::kAccessDenied);
  EXPECT_EQ(fs::file_size(path()), 4U);
  fs::remove(path());

  fs::create_directory(path());
  expectRefused(error::kAccessDenied);
  EXPECT_TRUE(fs::is_directory(path()));
  fs::remove(path());

  fs::create_symlink("nowhere", path());
  expectRefused(error::kAccessDenied);
  EXPECT_TRUE(fs::is_symlink(path()));
}

TEST_F(PipePlaceTest, UnreadyNameThatCannotBeTakenFailsCreation) {
  fs::create_directories(path() + '~');
  EXPECT_EQ(create(), platform::invalidPipe());
  EXPECT_NE(platform::lastError(), error::kSuccess);
  EXPECT_FALSE(fs::exists(path()));
}

TEST_F(PipePlaceTest, CloseLeavesAPathThatIsNoLongerItsOwn) {
  createPipe();
  ASSERT_TRUE(fs::remove(path()));
  const ScopedFd stranger = bindSocket(path(), 1);
  EXPECT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  EXPECT_TRUE(fs::is_socket(path()));
}

TEST_F(PipePlaceTest, FoldersThatVanishedAreMadeAgain) {
  createPipe();
  PipeClient first = connected();
  fs::remove_all(folder_.path() / "root");
  EXPECT_EQ(disconnect(), kPipeOk);
  connected();
  fs::remove_all(folder_.path() / "root");
  EXPECT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
}

TEST_F(PipePlaceTest, PathTakenMeanwhileFailsDisconnectAndConnectUntilItIsFree) {
  createPipe();
  PipeClient client = connected();
  ASSERT_TRUE(fs::remove(path()));
  ScopedFd stranger = bindSocket(path(), 1);
  EXPECT_EQ(disconnect(), pipeError(error::kAccessDenied));
  EXPECT_TRUE(client.waitForDrop()) << "the client is dropped all the same";
  EXPECT_EQ(connectPipe(), pipeError(error::kAccessDenied));
  EXPECT_TRUE(nobodyWaits(stranger));
  stranger.reset();
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  EXPECT_TRUE(client.connectWhenListening(kPipeName));
  EXPECT_THAT(call.outcome().error, AnyOf(error::kSuccess, error::kPipeConnected));
}

TEST_F(PipePlaceTest, PathNeverVanishesAndTheNextClientIsTakenAsSoonAsItReappears) {
  createPipe();
  for (int round = 0; round < 50; ++round) {
    PipeClient client = connected();
    PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
    while (!disconnecting.ended()) ASSERT_TRUE(fs::is_socket(path()));
    ASSERT_EQ(disconnecting.outcome(), kPipeOk);
  }
}

TEST_F(PipePlaceTest, ClientWaitingForThePathConnectsWhenItAppears) {
  PipeClient client;
  PipeCallThread waiting([&] { return client.connectWhenListening(kPipeName); });
  waiting.waitUntilBlocked();
  createPipe();
  EXPECT_TRUE(waiting.outcome().ok);
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));

  PipeClient next;
  PipeCallThread waitingForTurn([&] { return next.connectWhenListening(kPipeName); });
  waitingForTurn.waitUntilBlocked();
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(waitingForTurn.outcome().ok);
}

TEST_F(PipePlaceTest, ClientsBlockedOnAFullQueueAreRefusedWithTheOthers) {
  createPipe();
  std::vector<ScopedFd> queued;
  for (;;) {
    ScopedFd client;
    const int error = connectSocket(path(), &client, false);
    if (error == EAGAIN) break;
    ASSERT_EQ(error, 0);
    queued.push_back(std::move(client));
  }
  ASSERT_GT(queued.size(), 1U);
  // More than the queue holds: each accepted client alone would wake one of them.
  std::vector<int> errors(queued.size() + 10, -1);
  std::vector<std::unique_ptr<PipeCallThread>> blocked;
  for (int& error : errors) {
    blocked.push_back(std::make_unique<PipeCallThread>([this, &error] {
      ScopedFd client;
      error = connectSocket(path(), &client);
      return error == 0;
    }));
  }
  for (const auto& call : blocked) call->waitUntilBlocked();
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  for (const auto& call : blocked) call->outcome();
  // Some may have slipped into the place that the first client left, and were dropped from there.
  for (const int error : errors) EXPECT_THAT(error, AnyOf(ECONNREFUSED, 0));
  for (std::size_t i = 1; i < queued.size(); ++i) {
    char byte = 0;
    const ssize_t count = recv(queued[i].get(), &byte, 1, 0);
    ASSERT_TRUE(count == 0 || (count < 0 && errno != EAGAIN)) << "left hanging: " << i;
  }
  ASSERT_EQ(send(queued[0].get(), "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_TRUE(readByte());
}

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open
TEST_F(PipePlaceTest, ProcessOutOfDescriptorsGetsAClearErrorAndServesWhenItHasThemAgain) {
  const int result = inProcess([this] {
    createPipe();
    PipeClient client;
    client.connect(kPipeName);
    std::vector<ScopedFd> taken;
    const rlimit few{64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    do {
      taken.emplace_back(dup(STDERR_FILENO));
    } while (taken.back());
    const PipeOutcome full = pipeError(error::kTooManyOpenFiles);
    if (create("\\\\.\\pipe\\other") != platform::invalidPipe()) return 1;
    if (platform::lastError() != full.error) return 2;
    if (!(connectPipe() == full)) return 3;
    taken.clear();
    return connectPipe().error == error::kPipeConnected ? 0 : 4;
  });
  pipe_ = platform::noPipe();
  EXPECT_EQ(result, 0);
}
#endif

}  // namespace

}  // namespace zelta::test
