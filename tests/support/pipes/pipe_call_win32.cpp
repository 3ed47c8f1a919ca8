// Windows tells whether a thread has an operation pending. Wine always denies it, so under Wine the
// Linux kernel is asked by direct system calls: a thread whose operation is pending reads the 16
// bytes by which Wine's server wakes it; all its other reads are longer.
#include <windows.h>
// windows.h comes first
#include <cstdint>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/pipes/pipe_call.h"
#include "tests/support/system.h"

namespace zelta::test {

namespace {

// x86-64 Linux.
enum LinuxNumber : std::int64_t { kRead = 0, kOpen = 2, kClose = 3, kGetTid = 186 };

constexpr unsigned long long kWakeUpSize = 16;  // bytes

std::int64_t linuxCall(LinuxNumber number, std::int64_t first = 0, const void* second = nullptr,
                       std::int64_t third = 0) {
  std::int64_t result = number;
  asm volatile("syscall"
               : "+a"(result)
               : "D"(first), "S"(second), "d"(third)
               : "rcx", "r11", "memory");
  return result;
}

// The kernel's line about the call that a thread waits in; empty for a running thread.
std::string linuxSystemCall(int threadId) {
  const std::string path = "/proc/self/task/" + std::to_string(threadId) + "/syscall";
  const std::int64_t file = linuxCall(kOpen, reinterpret_cast<std::int64_t>(path.c_str()));
  if (file < 0) return {};
  char text[256];
  const std::int64_t size = linuxCall(kRead, file, text, sizeof text);
  linuxCall(kClose, file);
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

bool waitsInWine(int threadId) {
  std::istringstream call(linuxSystemCall(threadId));
  std::int64_t number = -1;
  unsigned long long file = 0;
  unsigned long long buffer = 0;
  unsigned long long size = 0;
  if (!(call >> std::dec >> number >> std::hex >> file >> buffer >> size)) return false;
  return number == kRead && size == kWakeUpSize;
}

bool waitsInWindows(int threadId) {
  HANDLE thread = OpenThread(THREAD_QUERY_INFORMATION, FALSE, static_cast<DWORD>(threadId));
  BOOL pending = FALSE;
  GetThreadIOPendingFlag(thread, &pending);
  CloseHandle(thread);
  return pending != FALSE;
}

}  // namespace

int PipeCallThread::currentThread() {
  return static_cast<int>(underWine() ? linuxCall(kGetTid) : GetCurrentThreadId());
}

void PipeCallThread::waitUntilBlocked() {
  const auto waits = underWine() ? waitsInWine : waitsInWindows;
  while (!ended_ && (threadId_ == 0 || !waits(threadId_))) std::this_thread::yield();
}

}  // namespace zelta::test
