#include "platform/pipe/pipe_access_linux.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace zelta::platform {

namespace {

constexpr char kServiceGroup[] = "zelta";
constexpr char kNobodyUser[] = "nobody";
// Used if the database has no user `nobody`: the kernel's own number for users it cannot map.
constexpr uid_t kOverflowUser = 65534;
constexpr uid_t kRoot = 0;
// A user without an account on the system; access for it is access for everyone.
constexpr uid_t kStranger = static_cast<uid_t>(-2);

constexpr mode_t kOwnerSocket = 0600;
constexpr mode_t kGroupSocket = 0060;
constexpr mode_t kOtherSocket = 0006;
constexpr mode_t kOwnerFolder = 0700;
constexpr mode_t kGroupFolder = 0050;
constexpr mode_t kOtherFolder = 0005;

constexpr std::size_t kFirstBuffer = 1024;
constexpr std::size_t kLargestBuffer = 1024 * 1024;

// Calls a database's reentrant lookup with a growing buffer. `lookup` gets buffer and size and
// returns the error number.
template <typename Lookup>
void lookUp(Lookup lookup) {
  std::vector<char> buffer(kFirstBuffer);
  while (lookup(buffer.data(), buffer.size()) == ERANGE && buffer.size() < kLargestBuffer) {
    buffer.resize(buffer.size() * 2);
  }
}

std::optional<gid_t> groupNamed(const char* name) {
  std::optional<gid_t> found;
  lookUp([&](char* buffer, std::size_t size) {
    group entry{};
    group* result = nullptr;
    const int error = getgrnam_r(name, &entry, buffer, size, &result);
    if (result != nullptr) found = entry.gr_gid;
    return error;
  });
  return found;
}

std::optional<uid_t> userNamed(const char* name) {
  std::optional<uid_t> found;
  lookUp([&](char* buffer, std::size_t size) {
    passwd entry{};
    passwd* result = nullptr;
    const int error = getpwnam_r(name, &entry, buffer, size, &result);
    if (result != nullptr) found = entry.pw_uid;
    return error;
  });
  return found;
}

}  // namespace

PipeAccounts systemPipeAccounts() {
  PipeAccounts accounts;
  accounts.self = geteuid();
  accounts.service = groupNamed(kServiceGroup);
  accounts.nobody = userNamed(kNobodyUser).value_or(kOverflowUser);
  return accounts;
}

std::optional<PeerIdentity> peerIdentity(int socket) {
  ucred credentials{};
  socklen_t size = sizeof(credentials);
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return std::nullopt;
  }

  std::vector<gid_t> groups;
  size = 0;
  int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size);
  if (result != 0 && errno == ERANGE) {
    groups.resize(size / sizeof(gid_t));
    result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  }
  if (result != 0) return std::nullopt;
  groups.push_back(credentials.gid);
  return PeerIdentity{credentials.uid, std::move(groups)};
}

PipeAccess::PipeAccess(std::vector<AccessEntry> entries, PipeAccounts accounts)
    : entries_(std::move(entries)),
      accounts_(accounts),
      socketMode_(kOwnerSocket),
      folderMode_(kOwnerFolder) {
  if (accounts_.service && admits({kStranger, {*accounts_.service}})) {
    group_ = accounts_.service;
    socketMode_ |= kGroupSocket;
    folderMode_ |= kGroupFolder;
  }
  if (admits({kStranger, {}})) {
    socketMode_ |= kGroupSocket | kOtherSocket;
    folderMode_ |= kGroupFolder | kOtherFolder;
  }
}

bool PipeAccess::admits(const PeerIdentity& peer) const {
  bool read = false;
  bool write = false;
  for (const AccessEntry& entry : entries_) {
    if (!applies(entry.trustee, peer)) continue;
    if (entry.allow) {
      read = read || entry.read;
      write = write || entry.write;
    } else if ((entry.read && !read) || (entry.write && !write)) {
      return false;
    }
    if (read && write) return true;
  }
  return false;
}

bool PipeAccess::applies(Trustee trustee, const PeerIdentity& peer) const {
  switch (trustee) {
    case Trustee::kSystem:
    case Trustee::kAdministrators:
      return peer.user == kRoot;
    case Trustee::kLocalService:
      return peer.user == accounts_.self ||
             (accounts_.service && std::find(peer.groups.begin(), peer.groups.end(),
                                             *accounts_.service) != peer.groups.end());
    case Trustee::kOwner:
      return peer.user == accounts_.self;
    case Trustee::kGuests:
    case Trustee::kAnonymous:
      return peer.user == accounts_.nobody;
    case Trustee::kEveryone:
      return true;
  }
  return false;
}

}  // namespace zelta::platform
