// What the process holds of the system at the moment, for tests that nothing is left behind.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>

namespace zelta::test {

struct ProcessResources {
  std::size_t threads = 0;
  std::size_t descriptors = 0;

  friend bool operator==(const ProcessResources& a, const ProcessResources& b) {
    return a.threads == b.threads && a.descriptors == b.descriptors;
  }
  friend std::ostream& operator<<(std::ostream& out, const ProcessResources& resources) {
    return out << resources.threads << " threads, " << resources.descriptors << " descriptors";
  }
};

// Whether the thread is on its way out: one that was joined may be listed a moment longer.
inline bool isExiting(const std::filesystem::path& task) {
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

inline ProcessResources processResources() {
  // A sanitizer's own thread begins with the program's first: it is there from now on.
  static const bool begun = (std::thread([] {}).join(), true);
  static_cast<void>(begun);
  ProcessResources resources;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (!isExiting(task.path())) ++resources.threads;
  }
  for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
    static_cast<void>(descriptor);
    ++resources.descriptors;
  }
  return resources;
}

}  // namespace zelta::test
