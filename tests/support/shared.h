// A state that the threads of a test share. Any thread.
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
  // The state for one thread alone, as long as this lives. Those who wait look at it afterwards.
  class Access {
   public:
    explicit Access(Shared& shared) : shared_(shared), lock_(shared.mutex_) {}
    ~Access() { shared_.changed_.notify_all(); }
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

    State* operator->() const { return &shared_.state_; }
    State& operator*() const { return shared_.state_; }

    // Leaves the state to the others until the function or the member of the state gives true.
    template <typename Ready>
    void wait(Ready ready) {
      shared_.changed_.notify_all();
      shared_.changed_.wait(lock_, [&] { return std::invoke(ready, shared_.state_); });
    }
    // False if the time is up before.
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
