#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "tests/support/small_disk.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

bool mountHere(const std::filesystem::path& folder, std::size_t size) {
  const std::string options = "size=" + std::to_string(size);
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

}  // namespace

void onSmallDisk(std::size_t size,
                 const std::function<void(const std::filesystem::path&)>& action) {
  const TempFolder folder;
  std::thread([&] {
    if (mountHere(folder.path(), size)) {
      action(folder.path());
    } else {
      ADD_FAILURE() << "cannot mount: " << std::strerror(errno);
    }
  }).join();
}

void fillDisk(const std::filesystem::path& file) {
  std::ofstream filler(file, std::ios::binary);
  filler.rdbuf()->pubsetbuf(nullptr, 0);
  while (filler.put('x')) {
  }
}

}  // namespace zelta::test
