#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "tests/support/small_disk.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

// Makes later mounts of the calling thread private to it. Returns the reason if the system does not
// permit that, else an empty text.
std::string unshareMounts() {
  if (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    return {};
  }
  const std::string what = "no mounts are possible here: ";
  if (errno == EINVAL) return what + "the root is not a mount point, as in a plain chroot";
  return what + std::generic_category().message(errno);
}

}  // namespace

void onSmallDisk(std::size_t size,
                 const std::function<void(const std::filesystem::path&)>& action) {
  const TempFolder folder;
  const std::string options = "size=" + std::to_string(size);
  std::string reason;
  std::thread([&] {
    reason = unshareMounts();
    if (!reason.empty()) return;
    if (mount("tmpfs", folder.path().c_str(), "tmpfs", 0, options.c_str()) == 0) {
      action(folder.path());
    } else {
      ADD_FAILURE() << "cannot mount: " << std::strerror(errno);
    }
  }).join();
  // The test is skipped if this process may not mount, as in a plain chroot or without root: only a
  // file system of its own can be filled without filling the machine's.
  if (!reason.empty()) GTEST_SKIP() << "a small disk is a mount: " << reason;
}

void fillDisk(const std::filesystem::path& file) {
  std::ofstream filler(file, std::ios::binary);
  filler.rdbuf()->pubsetbuf(nullptr, 0);
  while (filler.put('x')) {
  }
}

}  // namespace zelta::test
