#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/process_state.h"

namespace zelta::test {

namespace fs = std::filesystem;

namespace {

// Whether the thread is exiting: a joined thread may be listed a moment longer.
bool isExiting(const fs::path& task) {
  constexpr unsigned long kExiting = 0x4;  // PF_EXITING of the kernel
  constexpr int kFieldsBeforeFlags = 6;    // after the name: state up to the terminal's group
  std::ifstream file(task / "stat");
  std::string line;
  if (!std::getline(file, line)) return true;
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < kFieldsBeforeFlags; ++i) fields >> skipped;
  unsigned long flags = 0;
  fields >> flags;
  return (flags & kExiting) != 0;
}

}  // namespace

std::size_t threadCount() {
  // A sanitizer's own thread begins with the program's first one, so start that now.
  static const bool begun = (std::thread([] {}).join(), true);
  static_cast<void>(begun);
  const fs::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::count_if(
      begin(tasks), end(tasks), [](const auto& task) { return !isExiting(task.path()); }));
}

std::vector<std::string> openFiles() {
  std::vector<std::string> targets;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone).string();
    // The iteration's own descriptor points to the folder that it lists.
    if (!gone && fs::path(target).filename() != "fd") targets.push_back(target);
  }
  std::sort(targets.begin(), targets.end());
  return targets;
}

bool isMapped(const std::string& path) {
  const std::string wanted = fs::canonical(path).string();
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find(wanted) != std::string::npos) return true;
  }
  return false;
}

}  // namespace zelta::test
