#include "tests/support/process_state.h"

#include <chrono>
#include <thread>

namespace zelta::test {

std::size_t threadsLeft(std::size_t expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::size_t count = threadCount();
  while (count > expected && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // there is no event for it
    count = threadCount();
  }
  return count;
}

}  // namespace zelta::test
