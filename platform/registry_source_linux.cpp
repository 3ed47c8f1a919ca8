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

constexpr std::int64_t kLargestFile = 64 * 1024 * 1024;
constexpr std::size_t kChunk = 64 * 1024;
constexpr int kAttempts = 4;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// Longer than the step of any file system's time stamps.
constexpr std::int64_t kSettlingTime = 2 * kNanosecondsPerSecond;

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return nanoseconds(time);
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

std::string describe(int error) { return std::generic_category().message(error); }

FileRead nothing(const FileSignature& signature, const std::string& problem) {
  FileRead read;
  read.signature = signature;
  read.problem = problem;
  return read;
}

// An empty text or why it could not be read.
std::string readAll(int descriptor, std::string* bytes) {
  std::size_t length = 0;
  for (;;) {
    bytes->resize(length + kChunk);
    const ssize_t count = read(descriptor, bytes->data() + length, kChunk);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return describe(errno);
    length += static_cast<std::size_t>(count);
    bytes->resize(length);
    if (count == 0) return {};
    if (length > static_cast<std::size_t>(kLargestFile)) return "the file is too large";
  }
}

FileRead readOnce(int descriptor) {
  const std::int64_t start = now();
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return nothing({}, describe(errno));
  FileRead read;
  read.signature = signatureFrom(status);
  if (!S_ISREG(status.st_mode)) return nothing(read.signature, "not a regular file");
  if (status.st_size > kLargestFile) return nothing(read.signature, "the file is too large");
  read.bytes.reserve(static_cast<std::size_t>(status.st_size) + kChunk);
  const std::string problem = readAll(descriptor, &read.bytes);
  if (!problem.empty()) return nothing(read.signature, problem);
  read.settled = start - read.signature.changed > kSettlingTime;
  return read;
}

}  // namespace

FileSignature signatureOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return signatureFrom(status);
}

FileRead readWholeFile(const std::string& path) {
  FileRead read;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    // Without blocking: a pipe in the file's place must not stop the driver.
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) {
      if (errno == ENOENT || errno == ENOTDIR) return {};
      return nothing({}, describe(errno));
    }
    read = readOnce(file.get());
    if (signatureOf(path) == read.signature) return read;
    read.settled = false;
  }
  return read;
}

}  // namespace zelta::platform
