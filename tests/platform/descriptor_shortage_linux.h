// A scope in which the process has no file descriptor left.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::test {

class DescriptorShortage {
 public:
  DescriptorShortage() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{std::min<rlim_t>(before_.rlim_cur, 256), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    while (platform::ScopedFd one{dup(STDERR_FILENO)}) taken_.push_back(std::move(one));
  }
  ~DescriptorShortage() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;

  // Releases `count` descriptors.
  void release(std::size_t count) { taken_.resize(taken_.size() - count); }

 private:
  rlimit before_{};
  std::vector<platform::ScopedFd> taken_;
};

}  // namespace zelta::test
