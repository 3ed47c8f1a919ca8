// A file descriptor that its holder closes. Moving hands it on and leaves none behind; closing
// keeps errno.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zelta::platform {

class ScopedFd {
 public:
  static constexpr int kNone = -1;

  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~ScopedFd() { reset(); }

  bool valid() const { return fd_ != kNone; }
  explicit operator bool() const { return valid(); }
  int get() const { return fd_; }
  // Gives up the descriptor without closing it.
  int release() { return std::exchange(fd_, kNone); }

  void reset(int fd = kNone) {
    const int before = std::exchange(fd_, fd);
    if (before == kNone) return;
    const int kept = errno;
    ::close(before);
    errno = kept;
  }

 private:
  int fd_ = kNone;
};

}  // namespace zelta::platform
