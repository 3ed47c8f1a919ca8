// Users who may not use a pipe: kept away by the file system, and by the credentials where the
// file system would let them pass. Needs root, to become such users.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/pipe/pipe_listener_linux.h"
#include "platform/process/error.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/raw_socket_linux.h"

namespace zelta::test {

namespace {

using platform::PipeAccess;
using platform::PipeListener;
using platform::ScopedFd;
namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
constexpr uid_t kAgent = 61001;
constexpr gid_t kService = 61002;
constexpr gid_t kOther = 61003;

class PipeForeignUserTest : public SystemPipeTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(geteuid(), 0U) << "this test becomes other users and has to start as root";
    // The way to the root folder; what lies below it is the pipe's.
    fs::permissions(folder_.path(), fs::perms(0755));
  }

  // The error number of one connect by another user.
  int connectAs(uid_t user, gid_t group, const std::vector<gid_t>& groups = {}) {
    return inProcess([&] {
      ScopedFd socket;
      return becomeUser(user, group, groups) ? connectSocket(path(), &socket) : 255;
    });
  }

  // Takes the file system's protection away.
  void openToAll() {
    for (fs::path made = path(); made != folder_.path(); made = made.parent_path()) {
      fs::permissions(made, fs::perms(0777));
    }
  }

  // As they would be where the service's group exists.
  PipeAccess groupAccess() {
    std::vector<platform::AccessEntry> entries;
    EXPECT_EQ(platform::parseSddl(kPipeSddl, &entries), error::kSuccess);
    return PipeAccess(entries, {0, kService, kNobody});
  }
};

TEST_F(PipeForeignUserTest, CannotReachTheSocket) {
  createPipe();
  EXPECT_EQ(connectAs(kNobody, kNobody), EACCES);
  EXPECT_EQ(connectAs(kAgent, kOther), EACCES);
}

TEST_F(PipeForeignUserTest, CannotReachTheSocketInAnOpenFolder) {
  createPipe();
  openToAll();
  fs::permissions(path(), fs::perms(0600));
  EXPECT_EQ(connectAs(kNobody, kNobody), EACCES);
}

TEST_F(PipeForeignUserTest, IsDroppedWhenAcceptedAndThePipeGoesOnWaiting) {
  createPipe();
  openToAll();
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  call.waitUntilBlocked();
  for (const uid_t user : {kNobody, kAgent}) {
    const int result = inProcess([&] {
      PipeClient client;
      if (!becomeUser(user, user)) return 1;
      if (!client.connect(kPipeName)) return 2;
      return client.waitForDrop() ? 0 : 3;
    });
    EXPECT_EQ(result, 0) << "user " << user;
    call.waitUntilBlocked();
    ASSERT_FALSE(call.ended());
  }
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  EXPECT_EQ(call.outcome(), kPipeOk);
  ASSERT_TRUE(client.writeNumber(1));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
}

TEST_F(PipeForeignUserTest, WhoWaitsInFrontOfAPermittedClientIsPassedOver) {
  createPipe();
  openToAll();
  EXPECT_EQ(connectAs(kNobody, kNobody), 0);
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  ASSERT_TRUE(client.writeNumber(1));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
}

TEST_F(PipeForeignUserTest, RootIsDroppedWhereTheDescriptorDoesNotNameTheSystem) {
  platform::SecurityDescriptor descriptor = nullptr;
  ASSERT_TRUE(pipes_.convertSecurityDescriptor("D:(D;;GA;;;SY)(A;;GA;;;LS)", &descriptor));
  pipe_ = create(kPipeName, "D:(D;;GA;;;SY)(A;;GA;;;LS)");
  ASSERT_NE(pipe_, platform::invalidPipe());
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  EXPECT_TRUE(client.waitForDrop());
  call.waitUntilBlocked();
  EXPECT_FALSE(call.ended());
  EXPECT_EQ(cancel(), kPipeOk);
}

TEST_F(PipeForeignUserTest, EveryoneIsLetInWhereTheDescriptorSaysSo) {
  pipe_ = create(kPipeName, "D:(A;;GA;;;WD)");
  ASSERT_NE(pipe_, platform::invalidPipe());
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  call.waitUntilBlocked();
  EXPECT_EQ(connectAs(kNobody, kNobody), 0);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeForeignUserTest, MembersOfTheServiceGroupAreLetInAndOthersAreNot) {
  PipeListener listener(path(), groupAccess());
  ASSERT_EQ(listener.open(), error::kSuccess);
  EXPECT_EQ(connectAs(kAgent, kOther), EACCES);
  EXPECT_EQ(connectAs(kNobody, kNobody), EACCES);
  EXPECT_EQ(connectAs(kAgent, kService), 0);
  EXPECT_EQ(connectAs(kAgent, kOther, {kService}), 0) << "a supplementary group counts, too";
  EXPECT_EQ(connectAs(kNobody, kNobody, {kService}), 0) << "stopped by the credentials only";
  for (int admitted = 0; admitted < 2; ++admitted) {
    ScopedFd client;
    EXPECT_EQ(listener.accept(&client), error::kSuccess);
    EXPECT_TRUE(client);
  }
  ScopedFd client;
  EXPECT_EQ(listener.accept(&client), error::kSuccess);
  EXPECT_FALSE(client) << "nobody was let in";
}

TEST_F(PipeForeignUserTest, SocketAndFoldersBelongToTheServiceGroup) {
  PipeListener listener(path(), groupAccess());
  ASSERT_EQ(listener.open(), error::kSuccess);
  struct stat found {};
  ASSERT_EQ(stat(path().c_str(), &found), 0);
  EXPECT_EQ(found.st_gid, kService);
  EXPECT_EQ(found.st_mode & 07777U, 0660U);
  for (fs::path made = fs::path(path()).parent_path(); made != folder_.path();
       made = made.parent_path()) {
    ASSERT_EQ(stat(made.c_str(), &found), 0);
    EXPECT_EQ(found.st_gid, kService) << made;
    EXPECT_EQ(found.st_mode & 07777U, 0750U) << made;
  }
}

TEST_F(PipeForeignUserTest, OwnerOutsideTheGroupKeepsThePipeToItself) {
  fs::permissions(folder_.path(), fs::perms(0777));
  const int result = inProcess([this] {
    if (!becomeUser(kAgent, kOther)) return 1;
    PipeListener listener(path(), groupAccess());
    if (listener.open() != error::kSuccess) return 2;
    struct stat found {};
    if (stat(path().c_str(), &found) != 0 || (found.st_mode & 07777U) != 0600U) return 3;
    const fs::path parent = fs::path(path()).parent_path();
    if (stat(parent.c_str(), &found) != 0 || (found.st_mode & 07777U) != 0700U) return 4;
    return 0;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(PipeForeignUserTest, ProcessThatMayNotMakeTheFoldersGetsAccessDenied) {
  const int result = inProcess([this] {
    if (!becomeUser(kAgent, kOther)) return 255;
    return create() == platform::invalidPipe() ? static_cast<int>(platform::lastError()) : 0;
  });
  EXPECT_EQ(result, static_cast<int>(error::kAccessDenied));
}

}  // namespace

}  // namespace zelta::test
