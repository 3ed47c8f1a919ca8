#include "tests/support/waiting_thread.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>

namespace zelta::test {

namespace {

constexpr std::chrono::seconds kLimit{60};
constexpr std::chrono::milliseconds kBetweenLooks{1};

}  // namespace

void WaitingThread::begin() { begun_.set_value(static_cast<pid_t>(syscall(SYS_gettid))); }

// The file holds the number of the call in which the thread is blocked and its arguments, or
// "running". A condition variable's wait is the futex call with a bit set, a mutex's is without.
bool WaitingThread::isInConditionWait() const {
  std::ifstream file("/proc/self/task/" + std::to_string(id_) + "/syscall");
  long call = 0;
  unsigned long address = 0;
  unsigned long operation = 0;
  if (!(file >> std::dec >> call >> std::hex >> address >> operation)) return false;
  return call == SYS_futex && (operation & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
}

bool WaitingThread::waits() {
  if (id_ == 0) id_ = beginning_.get();
  const auto end = std::chrono::steady_clock::now() + kLimit;
  while (std::chrono::steady_clock::now() < end) {
    if (isInConditionWait()) return true;
    if (end_.wait_for(kBetweenLooks) == std::future_status::ready) return false;
  }
  return false;
}

bool WaitingThread::ends() { return end_.wait_for(kLimit) == std::future_status::ready; }

}  // namespace zelta::test
