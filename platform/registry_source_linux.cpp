#include "platform/registry_source_linux.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

#include "platform/scoped_fd_linux.h"

namespace zelta::platform {

namespace {

constexpr std::size_t kLargestFile = 64 * 1024 * 1024;  // bytes
constexpr std::size_t kChunk = 64 * 1024;
constexpr int kAttempts = 4;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosecondsPerUnit = 100;  // of the wall clock
// Longer than the step of any file system's time stamps.
constexpr std::int64_t kSettlingTime = 2 * kNanosecondsPerSecond;

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

FileSignature signatureFrom(const struct stat& status) {
  FileSignature signature;
  signature.exists = true;
  signature.device = status.st_dev;
  signature.inode = status.st_ino;
  signature.size = status.st_size;
  signature.changed = nanoseconds(status.st_ctim);
  return signature;
}

// What the file is like rather than what the system can do at the moment.
bool isOfTheFile(int error) {
  return error == EACCES || error == EPERM || error == ELOOP || error == ENAMETOOLONG ||
         error == EISDIR || error == ENXIO || error == ENODEV;
}

FileRead failure(int error) {
  FileRead file;
  file.problem = std::generic_category().message(error);
  file.failed = !isOfTheFile(error);
  return file;
}

// Zero or the error's number.
int readAll(int descriptor, std::string* bytes) {
  std::size_t length = 0;
  for (;;) {
    bytes->resize(length + kChunk);
    const ssize_t count = read(descriptor, bytes->data() + length, kChunk);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    length += static_cast<std::size_t>(count);
    bytes->resize(length);
    if (count == 0 || length > kLargestFile) return 0;
  }
}

FileRead readOnce(int descriptor, std::int64_t now) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return failure(errno);
  FileRead file;
  file.signature = signatureFrom(status);
  if (!S_ISREG(status.st_mode)) {
    file.problem = "not a regular file";
    return file;
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size <= kLargestFile) {
    file.bytes.reserve(size + kChunk);
    const int error = readAll(descriptor, &file.bytes);
    if (error != 0) return failure(error);
  }
  if (size > kLargestFile || file.bytes.size() > kLargestFile) {
    file.bytes.clear();
    file.problem = "the file is too large";
    return file;
  }
  file.settled = now * kNanosecondsPerUnit - file.signature.changed > kSettlingTime;
  return file;
}

}  // namespace

FileSignature signatureOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return signatureFrom(status);
}

FileRead readWholeFile(const std::string& path, std::int64_t now) {
  FileRead file;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    // Without blocking: a pipe in the file's place must not stop the driver.
    const ScopedFd opened(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!opened && (errno == ENOENT || errno == ENOTDIR)) return {};
    if (!opened) return failure(errno);
    file = readOnce(opened.get(), now);
    if (file.failed) return file;
    if (signatureOf(path) == file.signature) return file;
    file.settled = false;
  }
  return file;
}

}  // namespace zelta::platform
