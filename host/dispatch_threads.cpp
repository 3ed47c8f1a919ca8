#include "host/dispatch_threads.h"

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

DispatchThreads::PostResult DispatchThreads::post(Request& request) {
  MutexLock lock(mutex_);
  if (stopped_) return PostResult::kStopped;
  if (!growFor(waiting_.size() + 1)) return PostResult::kNoThread;
  waiting_.push_back(std::move(request));
  changed_.notifyOne();
  return PostResult::kAccepted;
}

bool DispatchThreads::growFor(std::size_t waiting) {
  if (waiting <= idle_ || threads_.size() >= maximum_) return true;
  try {
    threads_.emplace_back([this] { run(); });
  } catch (const std::system_error&) {
    // The request waits for one of the threads that there are.
    return !threads_.empty();
  }
  return true;
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

std::deque<DispatchThreads::Request> DispatchThreads::close() {
  std::deque<Request> unbegun;
  MutexLock lock(mutex_);
  stopped_ = true;
  unbegun.swap(waiting_);
  changed_.notifyAll();
  return unbegun;
}

void DispatchThreads::join() {
  std::vector<std::thread> threads;
  {
    MutexLock lock(mutex_);
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace zelta::host
