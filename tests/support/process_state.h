// The test process's current resources, as the operating system reports them.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace zelta::test {

// Threads of the process.
std::size_t threadCount();
// Threads of the process as soon as there are no more than expected, else after ten seconds: the
// system may list a thread a moment longer than it takes to join it.
inline std::size_t threadsLeft(std::size_t expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::size_t count = threadCount();
  while (count > expected && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // there is no event for it
    count = threadCount();
  }
  return count;
}
// The targets of the open file descriptors, sorted, without the query's own descriptor.
std::vector<std::string> openFiles();
// Whether a file of that path is mapped into memory.
bool isMapped(const std::string& path);

}  // namespace zelta::test
