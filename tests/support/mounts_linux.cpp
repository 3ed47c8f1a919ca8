#include "tests/support/mounts_linux.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace zelta::test {

std::string unshareMounts() {
  if (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    return {};
  }
  const std::string what = "no mounts are possible here: ";
  if (errno == EINVAL) return what + "the root is not a mount point, as in a plain chroot";
  return what + std::generic_category().message(errno);
}

std::string whyNoMounts() {
  std::string reason;
  std::thread([&reason] { reason = unshareMounts(); }).join();
  return reason;
}

}  // namespace zelta::test
