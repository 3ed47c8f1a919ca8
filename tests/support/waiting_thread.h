// A thread of the test that runs one function; tells whether it waits in there.
//
// Owned by the test; only the test's thread calls the methods. The destructor joins. Waits give
// false after a minute.
#pragma once

#include <sys/types.h>

#include <future>
#include <thread>

namespace zelta::test {

class WaitingThread {
 public:
  template <typename Work>
  explicit WaitingThread(Work work)
      : thread_([this, work = std::move(work)]() mutable {
          begin();
          work();
          done_.set_value();
        }) {}
  ~WaitingThread() { thread_.join(); }
  WaitingThread(const WaitingThread&) = delete;
  WaitingThread& operator=(const WaitingThread&) = delete;

  // Returns when the function waits on a condition variable: the kernel says in which call the
  // thread is blocked. A wait for a mutex does not count. False also if the function has returned.
  bool waits();
  // Returns when the function has returned.
  bool ends();

 private:
  void begin();
  bool isInConditionWait() const;

  std::promise<void> done_;
  std::promise<pid_t> begun_;
  std::future<void> end_ = done_.get_future();
  std::future<pid_t> beginning_ = begun_.get_future();
  pid_t id_ = 0;        // the kernel's number, once it is known
  std::thread thread_;  // last: uses the members above
};

}  // namespace zelta::test
