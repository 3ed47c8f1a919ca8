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
  const SddlResult parsed = parseSddl(sddl);
  EXPECT_EQ(parsed.error, error::kSuccess);
  return PipeAccess(parsed.entries, {kSelf, service, kNobody});
}

const PeerIdentity kRootUser{0, {}};
const PeerIdentity kOwnUser{kSelf, {}};
const PeerIdentity kMember{kOther, {kOtherGroup, kService}};
const PeerIdentity kStranger{kOther, {kOtherGroup, 0}};
const PeerIdentity kNobodyInTheGroup{kNobody, {kService}};

// The admitted users, one letter each: R root, S the own user, M a member of the service's group, X
// a stranger, N nobody (who is in that group).
std::string admittedBy(const PipeAccess& access) {
  std::string admitted;
  if (access.admits(kRootUser)) admitted += 'R';
  if (access.admits(kOwnUser)) admitted += 'S';
  if (access.admits(kMember)) admitted += 'M';
  if (access.admits(kStranger)) admitted += 'X';
  if (access.admits(kNobodyInTheGroup)) admitted += 'N';
  return admitted;
}

TEST(PipeAccessTest, Entries_AreHonouredInTheirOrder) {
  const std::pair<const char*, const char*> cases[] = {
      {kAgentsOnly, "RSM"},
      {"D:", ""},
      {"D:(A;;GA;;;WD)", "RSMXN"},
      {"D:(A;;GA;;;OW)", "S"},
      {"D:(A;;GA;;;LS)", "SMN"},
      {"D:(A;;GA;;;BA)", "R"},
      {"D:(D;;GA;;;SY)(A;;GA;;;SY)", ""},
      {"D:(A;;GA;;;SY)(D;;GA;;;SY)", "R"},
      // Reading and writing must both be granted.
      {"D:(A;;GR;;;SY)", ""},
      {"D:(A;;GR;;;SY)(A;;GW;;;WD)", "R"},
      {"D:(A;;GR;;;SY)(D;;GW;;;SY)(A;;GA;;;SY)", ""},
      {"D:(A;;GR;;;SY)(D;;GR;;;SY)(A;;GW;;;SY)", "R"},
  };
  for (const auto& [sddl, admitted] : cases)
    EXPECT_EQ(admittedBy(accessOf(sddl)), admitted) << sddl;
  EXPECT_EQ(admittedBy(accessOf(kAgentsOnly, std::nullopt)), "RS") << "without the group";
}

TEST(PipeAccessTest, Modes_LetInNobodyElse) {
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

TEST(PipeAccessTest, PeerIdentity_IsWhatTheKernelRecorded) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const ScopedFd first(ends[0]);
  const ScopedFd second(ends[1]);
  const std::optional<PeerIdentity> peer = peerIdentity(first.get());
  ASSERT_TRUE(peer.has_value());
  EXPECT_EQ(peer->user, geteuid());
  EXPECT_NE(std::find(peer->groups.begin(), peer->groups.end(), getegid()), peer->groups.end());
}

TEST(PipeAccessTest, DescriptorThatIsNoSocket_HasNoIdentity) {
  EXPECT_FALSE(peerIdentity(-1).has_value());
}

TEST(PipeAccessTest, SystemAccounts_AreThisProcesss) {
  EXPECT_EQ(systemPipeAccounts().self, geteuid());
  EXPECT_NE(systemPipeAccounts().nobody, 0U);
}

}  // namespace

}  // namespace zelta::platform
