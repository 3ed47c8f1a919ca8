// A state shared by a test's threads. Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

namespace zelta::test {

template <typename State>
class Shared {
 public:
  // Locks the state for one thread while this object lives, then wakes the waiters.
  class Access {
   public:
    explicit Access(Shared& shared) : shared_(shared), lock_(shared.mutex_) {}
    ~Access() { shared_.changed_.notify_all(); }
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

    State* operator->() const { return &shared_.state_; }
    State& operator*() const { return shared_.state_; }

    // Releases the state to other threads until the function or the state's member returns true.
    template <typename Ready>
    void wait(Ready ready) {
      shared_.changed_.notify_all();
      shared_.changed_.wait(lock_, [&] { return std::invoke(ready, shared_.state_); });
    }
    // False if the time runs out first.
    template <typename Ready>
    bool waitFor(std::chrono::nanoseconds limit, Ready ready) {
      shared_.changed_.notify_all();
      return shared_.changed_.wait_for(lock_, limit,
                                       [&] { return std::invoke(ready, shared_.state_); });
    }

   private:
    Shared& shared_;
    std::unique_lock<std::mutex> lock_;
  };

  Shared() = default;
  explicit Shared(State state) : state_(std::move(state)) {}
  Access lock() { return Access(*this); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  State state_;
};

}  // namespace zelta::test
