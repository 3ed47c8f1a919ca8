// A pipe's place in the file system: which files are replaced, kept or left behind, and who is let
// in.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "platform/pipe/pipe_listener_linux.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/pipes/raw_socket_linux.h"

namespace zelta::test {

namespace {

using platform::PipeAccess;
using platform::PipeListener;
using platform::ScopedFd;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

struct stat statusOf(const fs::path& path) {
  struct stat found {};
  EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
  return found;
}

mode_t modeOf(const fs::path& path) { return statusOf(path).st_mode & 07777; }

class PipePlaceTest : public SystemPipeTest {
 protected:
  // The folder that the pipe's socket is in.
  fs::path parent() { return fs::path(path()).parent_path(); }
  void makeParent() { fs::create_directories(parent()); }
  // The folders that the pipe made.
  std::vector<fs::path> made() {
    std::vector<fs::path> folders;
    for (fs::path at = parent(); at != folder_.path(); at = at.parent_path()) folders.push_back(at);
    return folders;
  }
  std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(parent())) {
      found.push_back(entry.path().filename().string());
    }
    return found;
  }
};

TEST_F(PipePlaceTest, Create_MakesSocketAndFoldersForTheOwnUserOnlyWhateverTheUmask) {
  for (const mode_t mask : {0000, 0777}) {
    const mode_t before = umask(mask);
    createPipe();
    umask(before);
    EXPECT_TRUE(fs::is_socket(path()));
    EXPECT_EQ(modeOf(path()), 0600U);
    for (const fs::path& folder : made()) EXPECT_EQ(modeOf(folder), 0700U) << folder;
    connected();
    closePipe();
    fs::remove_all(folder_.path() / "root");
  }
}

TEST_F(PipePlaceTest, FoldersThatExist_KeepTheirModeAndMayBeReachedThroughALink) {
  const fs::path elsewhere = folder_.path() / "elsewhere";
  fs::create_directories(elsewhere / "pipe");
  fs::permissions(elsewhere / "pipe", fs::perms(0751));
  fs::create_directory_symlink(elsewhere, folder_.path() / "root");
  createPipe();
  connected();
  EXPECT_TRUE(fs::exists(elsewhere / "pipe/Prefix/Service/pipe0"));
  EXPECT_EQ(modeOf(elsewhere / "pipe"), 0751U);
}

TEST_F(PipePlaceTest, RelativeRoot_MeansTheFolderAtCreation) {
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
  closePipe();
  EXPECT_FALSE(fs::exists(socket));
}

TEST_F(PipePlaceTest, Close_LeavesNothingBehindWithAndWithoutAClient) {
  for (const bool disconnects : {true, false}) {
    createPipe();
    const PipeClient client = connected();
    if (disconnects) {
      ASSERT_EQ(disconnect(), kPipeOk);
    }
    EXPECT_THAT(names(), ElementsAre("pipe0"));
    closePipe();
    EXPECT_THAT(names(), IsEmpty());
  }
}

TEST_F(PipePlaceTest, LeftoversOfAProcessThatIsGone_AreReplaced) {
  ASSERT_EQ(inProcess([this] { return create() == platform::invalidPipe() ? 1 : 0; }), 0);
  ASSERT_TRUE(fs::is_socket(path()));
  ASSERT_TRUE(bindSocket(path() + '~')) << "as if it was killed while it took the name";
  createPipe();
  EXPECT_THAT(names(), ElementsAre("pipe0"));
  connected();
}

TEST_F(PipePlaceTest, SocketOfAStranger_StaysUntouchedAndNoticesNothing) {
  makeParent();
  {
    const ScopedFd notListeningYet = bindSocket(path());
    expectRefused(error::kAccessDenied);
    EXPECT_TRUE(fs::is_socket(path()));
  }
  fs::remove(path());
  const ScopedFd stranger = bindSocket(path(), 5);
  const ino_t before = statusOf(path()).st_ino;
  expectRefused(error::kAccessDenied);
  EXPECT_TRUE(nobodyWaits(stranger));
  EXPECT_EQ(statusOf(path()).st_ino, before);
  EXPECT_THAT(names(), ElementsAre("pipe0"));
  ScopedFd client;
  EXPECT_EQ(connectSocket(path(), &client), 0);
}

TEST_F(PipePlaceTest, PipeOfAnotherProcess_StaysUntouchedInEveryState) {
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
    return own.connect(kPipeName) && outcomeOf(connect_).error == error::kPipeConnected;
  });
  ASSERT_TRUE(serving.ready());
  expectRefused(error::kAccessDenied);
  PipeClient client;
  EXPECT_FALSE(client.connect(kPipeName));
  EXPECT_EQ(client.error(), ECONNREFUSED);
}

TEST_F(PipePlaceTest, ThingThatIsNoSocket_StaysUntouched) {
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
  fs::remove_all(folder_.path() / "root");
  std::ofstream(folder_.file("root")) << "in place of a folder";
  expectRefused(error::kFileNotFound);
}

TEST_F(PipePlaceTest, NameThatTheSocketGetsFirstIsTaken_CreationFailsAndLeavesNothing) {
  fs::create_directories(path() + '~');
  EXPECT_EQ(create(), platform::invalidPipe());
  EXPECT_NE(platform::lastError(), error::kSuccess);
  EXPECT_FALSE(fs::exists(path()));
}

TEST_F(PipePlaceTest, PathThatIsNoLongerItsOwn_IsLeftByClose) {
  createPipe();
  ASSERT_TRUE(fs::remove(path()));
  const ScopedFd stranger = bindSocket(path(), 1);
  closePipe();
  EXPECT_TRUE(fs::is_socket(path()));
}

TEST_F(PipePlaceTest, FoldersThatVanished_AreMadeAgain) {
  createPipe();
  const PipeClient first = connected();
  fs::remove_all(folder_.path() / "root");
  EXPECT_EQ(disconnect(), kPipeOk);
  connected();
  fs::remove_all(folder_.path() / "root");
  closePipe();
}

TEST_F(PipePlaceTest, PathTakenMeanwhile_FailsDisconnectAndConnectUntilItIsFree) {
  createPipe();
  PipeClient client = connected();
  ASSERT_TRUE(fs::remove(path()));
  ScopedFd stranger = bindSocket(path(), 1);
  EXPECT_EQ(disconnect(), pipeError(error::kAccessDenied));
  EXPECT_TRUE(client.waitForDrop()) << "the client is dropped all the same";
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kAccessDenied));
  EXPECT_TRUE(nobodyWaits(stranger));
  stranger.reset();
  PipeCallThread connecting(connect_);
  expectServed(connecting);
}

TEST_F(PipePlaceTest, Disconnect_NeverLetsThePathVanish) {
  createPipe();
  for (int round = 0; round < 50; ++round) {
    PipeClient client = connected();
    PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
    while (!disconnecting.ended()) ASSERT_TRUE(fs::is_socket(path()));
    ASSERT_EQ(disconnecting.outcome(), kPipeOk);
  }
}

TEST_F(PipePlaceTest, ClientThatWatchesThePath_ConnectsWhenItAppearsAndWhenItIsRenewed) {
  PipeClient client;
  BlockedPipeCall waiting([&] { return client.connectWhenListening(kPipeName); });
  createPipe();
  EXPECT_TRUE(waiting.outcome().ok);
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  PipeClient next;
  BlockedPipeCall waitingForTurn([&] { return next.connectWhenListening(kPipeName); });
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(waitingForTurn.outcome().ok);
}

TEST_F(PipePlaceTest, ClientsBlockedOnAFullQueue_AreRefusedWithTheOthers) {
  createPipe();
  std::vector<ScopedFd> queued;
  for (int error = 0; error != EAGAIN;) {
    ScopedFd client;
    error = connectSocket(path(), &client, false);
    if (error == 0) queued.push_back(std::move(client));
    ASSERT_THAT(error, AnyOf(0, EAGAIN));
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
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  for (const auto& call : blocked) call->outcome();
  // Some may have slipped into the place that the first client left, and were dropped from there.
  for (const int error : errors) EXPECT_THAT(error, AnyOf(ECONNREFUSED, 0));
  for (std::size_t i = 1; i < queued.size(); ++i) {
    char byte = 0;
    const ssize_t count = recv(queued[i].get(), &byte, 1, 0);
    ASSERT_TRUE(count == 0 || (count < 0 && errno != EAGAIN)) << "left hanging: " << i;
  }
  ASSERT_EQ(send(queued[0].get(), "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_TRUE(readByte_());
}

TEST_F(PipePlaceTest, SeveralCreatorsOfOneName_OneHasItAtATime) {
  std::atomic<int> holders{0};
  std::atomic<int> most{0};
  std::vector<std::thread> creators;
  for (int i = 0; i < 4; ++i) {
    creators.emplace_back([&] {
      for (int created = 0; created < 100;) {
        const PipeHandleValue pipe = create();
        if (pipe == platform::invalidPipe()) {
          EXPECT_EQ(platform::lastError(), error::kAccessDenied);
          continue;
        }
        ++created;
        most = std::max(most.load(), ++holders);
        EXPECT_TRUE(PipeClient().connect(kPipeName));
        --holders;
        EXPECT_TRUE(pipes_.close(pipe));
      }
    });
  }
  for (std::thread& creator : creators) creator.join();
  EXPECT_EQ(most, 1);
  EXPECT_FALSE(fs::exists(path()));
}

constexpr uid_t kNobody = 65534;
constexpr uid_t kAgent = 61001;
constexpr gid_t kService = 61002;
constexpr gid_t kOther = 61003;

// Users who may not use a pipe: kept away by the file system, and by their credentials if the file
// system lets them pass.
class PipeForeignUserTest : public PipePlaceTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(geteuid(), 0U) << "this test becomes other users and has to start as root";
    // Opens the root folder to all; the folders below it belong to the pipe.
    fs::permissions(folder_.path(), fs::perms(0777));
  }

  // Connects once as another user; returns the error number.
  int connectAs(uid_t user, gid_t group, const std::vector<gid_t>& groups = {}) {
    return inProcess([&] {
      ScopedFd socket;
      return becomeUser(user, group, groups) ? connectSocket(path(), &socket) : 255;
    });
  }
  void openToAll() {
    fs::permissions(path(), fs::perms(0777));
    for (const fs::path& folder : made()) fs::permissions(folder, fs::perms(0777));
  }
  // The access if the service's group existed.
  static PipeAccess groupAccess() {
    const platform::SddlResult parsed = platform::parseSddl(kPipeSddl);
    EXPECT_EQ(parsed.error, error::kSuccess);
    return PipeAccess(parsed.entries, {0, kService, kNobody});
  }
};

TEST_F(PipeForeignUserTest, OtherUsers_CannotReachTheSocketEvenInAnOpenFolder) {
  createPipe();
  EXPECT_EQ(connectAs(kNobody, kNobody), EACCES);
  EXPECT_EQ(connectAs(kAgent, kOther), EACCES);
  openToAll();
  fs::permissions(path(), fs::perms(0600));
  EXPECT_EQ(connectAs(kNobody, kNobody), EACCES);
}

TEST_F(PipeForeignUserTest, OtherUserThatReachesTheSocket_IsDroppedAndThePipeGoesOnWaiting) {
  createPipe();
  openToAll();
  EXPECT_EQ(connectAs(kNobody, kNobody), 0);
  {
    const PipeClient client = connected();  // let in past the one who waits
  }
  ASSERT_EQ(disconnect(), kPipeOk);
  openToAll();
  BlockedPipeCall connecting(connect_);
  for (const uid_t user : {kNobody, kAgent}) {
    const int result = inProcess([&] {
      PipeClient client;
      if (!becomeUser(user, user)) return 1;
      if (!client.connect(kPipeName)) return 2;
      return client.waitForDrop() ? 0 : 3;
    });
    EXPECT_EQ(result, 0) << "user " << user;
    connecting.waitUntilBlocked();
    ASSERT_FALSE(connecting.ended());
  }
  expectServed(connecting);
}

TEST_F(PipeForeignUserTest, RootWithoutAnEntryForTheSystem_IsDropped) {
  pipe_ = create(kPipeName, "D:(D;;GA;;;SY)(A;;GA;;;LS)");
  ASSERT_NE(pipe_, platform::invalidPipe());
  PipeCallThread connecting(connect_);
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  EXPECT_TRUE(client.waitForDrop());
  connecting.waitUntilBlocked();
  EXPECT_FALSE(connecting.ended());
  EXPECT_EQ(cancel(), kPipeOk);
}

TEST_F(PipeForeignUserTest, EntryForEveryone_LetsAnybodyIn) {
  pipe_ = create(kPipeName, "D:(A;;GA;;;WD)");
  ASSERT_NE(pipe_, platform::invalidPipe());
  BlockedPipeCall connecting(connect_);
  EXPECT_EQ(connectAs(kNobody, kNobody), 0);
  EXPECT_EQ(connecting.outcome(), kPipeOk);
}

TEST_F(PipeForeignUserTest, ServiceGroup_OwnsSocketAndFoldersAndItsMembersAreLetIn) {
  PipeListener listener(path(), groupAccess());
  ASSERT_EQ(listener.open(), error::kSuccess);
  EXPECT_EQ(statusOf(path()).st_gid, kService);
  EXPECT_EQ(modeOf(path()), 0660U);
  for (const fs::path& folder : made()) {
    EXPECT_EQ(statusOf(folder).st_gid, kService) << folder;
    EXPECT_EQ(modeOf(folder), 0750U) << folder;
  }
  EXPECT_EQ(connectAs(kAgent, kOther), EACCES);
  EXPECT_EQ(connectAs(kNobody, kNobody), EACCES);
  EXPECT_EQ(connectAs(kAgent, kService), 0);
  EXPECT_EQ(connectAs(kAgent, kOther, {kService}), 0) << "a supplementary group counts, too";
  EXPECT_EQ(connectAs(kNobody, kNobody, {kService}), 0) << "stopped by the credentials only";
  for (const bool isAdmitted : {true, true, false}) {
    const platform::FdResult client = listener.accept();
    EXPECT_EQ(client.error, error::kSuccess);
    EXPECT_EQ(client.fd.valid(), isAdmitted);
  }
}

TEST_F(PipeForeignUserTest, OwnerOutsideTheGroup_KeepsThePipeToItself) {
  const int result = inProcess([this] {
    if (!becomeUser(kAgent, kOther)) return 1;
    PipeListener listener(path(), groupAccess());
    if (listener.open() != error::kSuccess) return 2;
    return modeOf(path()) == 0600 && modeOf(parent()) == 0700 ? 0 : 3;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(PipeForeignUserTest, ProcessThatMayNotMakeTheFolders_GetsAccessDenied) {
  fs::permissions(folder_.path(), fs::perms(0755));
  const int result = inProcess([this] {
    if (!becomeUser(kAgent, kOther)) return 255;
    return create() == platform::invalidPipe() ? static_cast<int>(platform::lastError()) : 0;
  });
  EXPECT_EQ(result, static_cast<int>(error::kAccessDenied));
}

}  // namespace

}  // namespace zelta::test
