#include "platform/pipe/pipe_folder_linux.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <utility>

#include "platform/process/error.h"
#include "platform/process/error_linux.h"

namespace zelta::platform {

namespace {

constexpr int kPass = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kOpen = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// The mode of a new folder until its group is set.
constexpr mode_t kPrivateFolder = 0700;

// Makes one folder and sets its access; no error if another process was faster.
bool makeFolder(int parent, const char* name, const PipeAccess& access) {
  if (mkdirat(parent, name, kPrivateFolder) != 0) return errno == EEXIST;
  const ScopedFd made(openat(parent, name, kOpen | O_NOFOLLOW));
  if (!made) return false;
  return fchmod(made.get(), giveToGroup(made.get(), "", access, access.folderMode())) == 0;
}

ScopedFd enter(int parent, const char* name, int flags, const PipeAccess* access) {
  ScopedFd entered(openat(parent, name, flags));
  if (entered || errno != ENOENT || access == nullptr) return entered;
  if (!makeFolder(parent, name, *access)) return ScopedFd();
  return ScopedFd(openat(parent, name, flags));
}

using FolderName = std::array<char, NAME_MAX + 1>;

// A folder's own name; none if it is longer than the system allows.
std::optional<FolderName> terminated(std::string_view name) {
  if (name.size() > NAME_MAX) {
    errno = ENAMETOOLONG;
    return std::nullopt;
  }
  FolderName result{};
  name.copy(result.data(), NAME_MAX);
  return result;
}

}  // namespace

FdResult openFolder(std::string_view path, const PipeAccess* access) {
  ScopedFd folder(open("/", kPass));
  std::size_t start = path.find_first_not_of('/');
  while (folder && start != std::string_view::npos) {
    const std::size_t end = path.find('/', start);
    const std::size_t next = path.find_first_not_of('/', end);
    const int flags = next == std::string_view::npos ? kOpen : kPass;
    const auto name = terminated(path.substr(start, end - start));
    folder = name ? enter(folder.get(), name->data(), flags, access) : ScopedFd();
    start = next;
  }
  if (!folder) return {errorFromErrno(errno), {}};
  return {error::kSuccess, std::move(folder)};
}

mode_t giveToGroup(int descriptor, const char* name, const PipeAccess& access, mode_t mode) {
  constexpr uid_t kSameUser = static_cast<uid_t>(-1);
  if (!access.group()) return mode;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH;
  if (fchownat(descriptor, name, kSameUser, *access.group(), flags) == 0) return mode;
  // Only root and members of a group may give a file to that group. If that fails, the file's own
  // group must not get in instead, unless everyone may.
  return (mode & S_IRWXO) != 0 ? mode : mode & ~static_cast<mode_t>(S_IRWXG);
}

FolderLock::FolderLock(int folder) : folder_(folder) {
  int result = 0;
  do {
    result = flock(folder_, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  held_ = result == 0;
}

FolderLock::~FolderLock() {
  const int kept = errno;
  // Closing the descriptor is not enough: a process forked meanwhile also has it and would keep the
  // lock.
  if (held_) flock(folder_, LOCK_UN);
  errno = kept;
}

}  // namespace zelta::platform
