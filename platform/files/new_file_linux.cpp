#include <fcntl.h>

#include <cerrno>

#include "platform/files/new_file.h"
#include "platform/files/scoped_fd_linux.h"

namespace zelta::platform {

namespace {

// What the process's mask leaves of it, as for any stream.
constexpr mode_t kMode = 0666;

}  // namespace

NewFile makeNewFile(const std::filesystem::path& path) {
  const ScopedFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (file) return NewFile::kMade;
  return errno == EEXIST ? NewFile::kExists : NewFile::kFailed;
}

}  // namespace zelta::platform
