// Decides who may reach a pipe's socket: an access list translated to the accounts of this system.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/pipe/sddl.h"

namespace zelta::platform {

// The accounts that trustees stand for. System and the administrators are uid 0.
struct PipeAccounts {
  uid_t self = 0;                // the process's own user: local service, owner
  std::optional<gid_t> service;  // the group `zelta`, if it exists: local service
  uid_t nobody = 0;              // guests and anonymous
};

// Looks the accounts up in the system's databases.
PipeAccounts systemPipeAccounts();

struct PeerIdentity {
  uid_t user = 0;
  std::vector<gid_t> groups;  // the primary group and the supplementary ones
};

// Who connected a UNIX stream socket, as the kernel recorded it at that moment; none if the kernel
// does not say.
std::optional<PeerIdentity> peerIdentity(int socket);

// Immutable; any thread may ask.
class PipeAccess {
 public:
  PipeAccess(std::vector<AccessEntry> entries, PipeAccounts accounts);

  // Entries are applied in order, until reading and writing are both granted or one of them is
  // denied; rights that no entry grants are denied.
  bool admits(const PeerIdentity& peer) const;

  // The file system's part: modes that let in only those whom `admits` may let in. The owner is
  // always among them; `admits` judges it when it connects.
  mode_t socketMode() const { return socketMode_; }
  mode_t folderMode() const { return folderMode_; }
  // The group that the socket and its folders belong to; none if the group has no access.
  std::optional<gid_t> group() const { return group_; }

 private:
  bool applies(Trustee trustee, const PeerIdentity& peer) const;

  std::vector<AccessEntry> entries_;
  PipeAccounts accounts_;
  mode_t socketMode_;
  mode_t folderMode_;
  std::optional<gid_t> group_;
};

}  // namespace zelta::platform
