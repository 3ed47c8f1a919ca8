#include "tests/support/pipes/pipe_call.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace zelta::test {

namespace {

bool waitsInKernel(int threadId) {
  std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/syscall");
  long call = -1;
  // A thread that runs has no number there.
  if (!(file >> call)) return false;
#if defined(SYS_poll)
  if (call == SYS_poll) return true;
#endif
#if defined(SYS_epoll_wait)
  if (call == SYS_epoll_wait) return true;
#endif
  return call == SYS_ppoll || call == SYS_epoll_pwait || call == SYS_connect;
}

}  // namespace

int PipeCallThread::currentThread() { return static_cast<int>(syscall(SYS_gettid)); }

void PipeCallThread::waitUntilBlocked() {
  while (!ended_ && (threadId_ == 0 || !waitsInKernel(threadId_))) std::this_thread::yield();
}

std::uint64_t PipeCallThread::sleeps() const {
  std::ifstream file("/proc/self/task/" + std::to_string(threadId_) + "/status");
  std::string word;
  std::uint64_t count = 0;
  while (file >> word && word != "voluntary_ctxt_switches:") {
  }
  file >> count;
  return count;
}

}  // namespace zelta::test
