#include "platform/pipe/pipe_access_linux.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "platform/files/scoped_fd_linux.h"
#include "platform/process/error.h"

namespace zelta::platform {

namespace {

constexpr uid_t kSelf = 2001;
constexpr uid_t kNobody = 65534;
constexpr uid_t kOther = 2002;
constexpr gid_t kService = 3001;
constexpr gid_t kOtherGroup = 3002;
constexpr char kAgentsOnly[] = "D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)";

PipeAccess accessOf(const std::string& sddl, std::optional<gid_t> service = kService) {
  std::vector<AccessEntry> entries;
  EXPECT_EQ(parseSddl(sddl, &entries), error::kSuccess);
  return PipeAccess(entries, {kSelf, service, kNobody});
}

TEST(PipeAccessTest, AgentsDescriptorAdmitsRootTheOwnUserAndTheServiceGroup) {
  const PipeAccess access = accessOf(kAgentsOnly);
  EXPECT_TRUE(access.admits({0, {}}));
  EXPECT_TRUE(access.admits({kSelf, {}}));
  EXPECT_TRUE(access.admits({kOther, {kService}}));
  EXPECT_TRUE(access.admits({kOther, {kOtherGroup, kService}}));
  EXPECT_FALSE(access.admits({kOther, {}}));
  EXPECT_FALSE(access.admits({kOther, {kOtherGroup, 0}}));
}

TEST(PipeAccessTest, NobodyIsDeniedEvenInTheServiceGroup) {
  const PipeAccess access = accessOf(kAgentsOnly);
  EXPECT_FALSE(access.admits({kNobody, {}}));
  EXPECT_FALSE(access.admits({kNobody, {kService}}));
}

TEST(PipeAccessTest, WithoutTheServiceGroupLocalServiceIsTheOwnUserAlone) {
  const PipeAccess access = accessOf(kAgentsOnly, std::nullopt);
  EXPECT_TRUE(access.admits({kSelf, {}}));
  EXPECT_FALSE(access.admits({kOther, {kService}}));
}

TEST(PipeAccessTest, EntriesAreHonouredInTheirOrder) {
  EXPECT_FALSE(accessOf("D:(D;;GA;;;SY)(A;;GA;;;SY)").admits({0, {}}));
  EXPECT_TRUE(accessOf("D:(A;;GA;;;SY)(D;;GA;;;SY)").admits({0, {}}));
  EXPECT_FALSE(accessOf("D:(A;;GR;;;SY)(D;;GW;;;SY)(A;;GA;;;SY)").admits({0, {}}));
  EXPECT_TRUE(accessOf("D:(A;;GR;;;SY)(D;;GR;;;SY)(A;;GW;;;SY)").admits({0, {}}));
}

TEST(PipeAccessTest, ReadingAndWritingMustBothBeGranted) {
  EXPECT_FALSE(accessOf("D:(A;;GR;;;SY)").admits({0, {}}));
  EXPECT_TRUE(accessOf("D:(A;;GR;;;SY)(A;;GW;;;WD)").admits({0, {}}));
}

TEST(PipeAccessTest, EmptyListAdmitsNobody) {
  EXPECT_FALSE(accessOf("D:").admits({0, {}}));
  EXPECT_FALSE(accessOf("D:").admits({kSelf, {kService}}));
}

TEST(PipeAccessTest, RootIsNotAdmittedWhereTheSystemIsNot) {
  EXPECT_FALSE(accessOf("D:(A;;GA;;;LS)").admits({0, {}}));
  EXPECT_TRUE(accessOf("D:(A;;GA;;;BA)").admits({0, {}}));
}

TEST(PipeAccessTest, OwnerIsTheOwnUserOnly) {
  const PipeAccess access = accessOf("D:(A;;GA;;;OW)");
  EXPECT_TRUE(access.admits({kSelf, {}}));
  EXPECT_FALSE(access.admits({kOther, {kService}}));
}

TEST(PipeAccessTest, ModesLetInNobodyElse) {
  const PipeAccess group = accessOf(kAgentsOnly);
  EXPECT_EQ(group.socketMode(), 0660U);
  EXPECT_EQ(group.folderMode(), 0750U);
  EXPECT_EQ(group.group(), kService);

  for (const PipeAccess& own : {accessOf(kAgentsOnly, std::nullopt), accessOf("D:(A;;GA;;;SY)"),
                                accessOf("D:"), accessOf("D:(D;;GA;;;LS)(A;;GA;;;SY)")}) {
    EXPECT_EQ(own.socketMode(), 0600U);
    EXPECT_EQ(own.folderMode(), 0700U);
    EXPECT_FALSE(own.group());
  }

  const PipeAccess everyone = accessOf("D:(A;;GA;;;WD)");
  EXPECT_EQ(everyone.socketMode(), 0666U);
  EXPECT_EQ(everyone.folderMode(), 0755U);
}

TEST(PipeAccessTest, PeerIdentityIsWhatTheKernelRecorded) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const ScopedFd first(ends[0]);
  const ScopedFd second(ends[1]);
  PeerIdentity peer;
  ASSERT_TRUE(peerIdentity(first.get(), &peer));
  EXPECT_EQ(peer.user, geteuid());
  EXPECT_NE(std::find(peer.groups.begin(), peer.groups.end(), getegid()), peer.groups.end());
}

TEST(PipeAccessTest, DescriptorThatIsNoSocketHasNoIdentity) {
  PeerIdentity peer;
  EXPECT_FALSE(peerIdentity(-1, &peer));
}

TEST(PipeAccessTest, SystemAccountsAreThisProcesss) {
  EXPECT_EQ(systemPipeAccounts().self, geteuid());
  EXPECT_NE(systemPipeAccounts().nobody, 0U);
}

}  // namespace

}  // namespace zelta::platform
