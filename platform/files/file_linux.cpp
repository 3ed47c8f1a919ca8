#include "platform/files/file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::platform {

std::filesystem::path nativePath(const std::string& path) {
  std::string native = path;
  std::replace(native.begin(), native.end(), '\\', '/');
  return native;
}

NewFile makeNewFile(const std::filesystem::path& path, Readers readers) {
  const mode_t mode = readers == Readers::kOwner ? 0600 : 0640;
  const ScopedFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (file) return NewFile::kMade;
  return errno == EEXIST ? NewFile::kExists : NewFile::kFailed;
}

}  // namespace zelta::platform
