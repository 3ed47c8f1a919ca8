#include "host/dispatch_threads.h"

#include <new>
#include <system_error>
#include <utility>

namespace zelta::host {

using platform::MutexLock;

DispatchThreads::DispatchThreads(std::size_t maximum, Handler handler)
    : maximum_(maximum), handler_(std::move(handler)) {}

DispatchThreads::~DispatchThreads() {
  close();
  join();
}

DispatchThreads::PostResult DispatchThreads::post(Request& request) noexcept {
  MutexLock lock(mutex_);
  if (stopped_) return PostResult::kStopped;
  if (!growFor(waiting_.size() + 1)) return PostResult::kNoMemory;
  try {
    waiting_.push_back(std::move(request));
  } catch (const std::bad_alloc&) {
    return PostResult::kNoMemory;
  }
  changed_.notifyOne();
  return PostResult::kAccepted;
}

bool DispatchThreads::growFor(std::size_t waiting) noexcept {
  if (waiting <= idle_ || threads_.size() >= maximum_) return true;
  // Without a new one the request waits for one of the threads that there are.
  return makeThread() || !threads_.empty();
}

bool DispatchThreads::makeThread() noexcept {
  try {
    threads_.emplace_back([this] { run(); });
    return true;
  } catch (const std::system_error&) {
    return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void DispatchThreads::run() {
  MutexLock lock(mutex_);
  for (;;) {
    ++idle_;
    changed_.wait(
        lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopped_ || !waiting_.empty(); });
    --idle_;
    if (stopped_) return;
    Request request = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    handler_(std::move(request));
    lock.lock();
  }
}

std::list<DispatchThreads::Request> DispatchThreads::close() noexcept {
  std::list<Request> unbegun;
  MutexLock lock(mutex_);
  stopped_ = true;
  unbegun.swap(waiting_);
  changed_.notifyAll();
  return unbegun;
}

void DispatchThreads::join() noexcept {
  std::vector<std::thread> threads;
  {
    MutexLock lock(mutex_);
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace zelta::host
