// The threads that hand requests to the driver, first in first out.
//
// A request never waits behind a slow one while another thread can be made for it: threads are
// made when more requests wait than threads idle, up to a bound, and kept until `join`.
// Threads: `post` from any; the rest is the owner's, and not for one of these threads.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <thread>
#include <vector>

#include "host/wdf_request.h"

namespace zelta::host {

class DispatchThreads {
 public:
  using Request = framework::ComPtr<WdfRequest>;
  using Handler = std::function<void(Request)>;
  enum class PostResult { kAccepted, kStopped, kNoMemory };

  DispatchThreads(std::size_t maximum, Handler handler);
  ~DispatchThreads();
  DispatchThreads(const DispatchThreads&) = delete;
  DispatchThreads& operator=(const DispatchThreads&) = delete;

  // Takes the caller's reference where it accepts the request. `kNoMemory`: there is none to keep
  // the request, or there is no thread at all and none can be made.
  PostResult post(Request& request) noexcept ZELTA_EXCLUDES(mutex_);
  // Nothing is taken or begun any more. Gives back the requests that no thread has begun.
  std::list<Request> close() noexcept ZELTA_EXCLUDES(mutex_);
  // After `close`: waits for the requests that are being handled, and ends the threads.
  void join() noexcept ZELTA_EXCLUDES(mutex_);

 private:
  void run() ZELTA_EXCLUDES(mutex_);
  // False where there is no thread at all for the new request.
  bool growFor(std::size_t waiting) noexcept ZELTA_REQUIRES(mutex_);
  bool makeThread() noexcept ZELTA_REQUIRES(mutex_);

  const std::size_t maximum_;
  const Handler handler_;
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool stopped_ ZELTA_GUARDED_BY(mutex_) = false;
  std::size_t idle_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::list<Request> waiting_ ZELTA_GUARDED_BY(mutex_);  // an empty one needs no memory
  std::vector<std::thread> threads_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::host
