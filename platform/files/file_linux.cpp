#include "platform/files/file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::platform {

namespace {

// For the owner and the group only, less what the process's umask takes away: a log of the debug
// level may hold a PIN.
constexpr mode_t kMode = 0640;

}  // namespace

std::filesystem::path nativePath(const std::string& path) {
  std::string native = path;
  std::replace(native.begin(), native.end(), '\\', '/');
  return native;
}

NewFile makeNewFile(const std::filesystem::path& path) {
  const ScopedFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (file) return NewFile::kMade;
  return errno == EEXIST ? NewFile::kExists : NewFile::kFailed;
}

}  // namespace zelta::platform
