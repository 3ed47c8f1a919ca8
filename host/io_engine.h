// The I/O of one running device: makes requests, dispatches them on their callers' threads, keeps
// those that wait in the driver, cancels.
//
// Ownership: the host makes one per bring-up; files share it, so that a file used after tear-down
// finds a stopped engine. A stopped engine has no requests.
// Threads: everything from any thread, except `close`, `awaitCallbacks` and `abandon`, which are
// the host's, in this order, and not from a callback of the driver's. They need no memory.
#pragma once

#include <memory>

#include "host/callback_gate.h"
#include "host/wdf_request.h"

namespace zelta::host {

// Whether the driver's I/O and cancel callbacks may overlap.
enum class Callbacks { kOverlapping, kOneAtATime };

class IoEngine : public std::enable_shared_from_this<IoEngine> {
 public:
  // `queue` may be null: every request is then refused with ERROR_INVALID_FUNCTION (1).
  IoEngine(SharedDriverErrors errors, framework::ComPtr<WdfQueue> queue, Callbacks callbacks);

  // Never null; an operation that could not be begun is already completed.
  std::shared_ptr<IoOperation> submit(const framework::ComPtr<WdfFile>& file,
                                      const IoControl& control, File::Completion completion);
  // No effect once the engine is closed: the driver's own shutdown completes waiting requests.
  void cancel(const Operation& operation) ZELTA_EXCLUDES(mutex_);

  // After this call the engine makes no further calls into the driver; requests are completed with
  // `kDeviceGone`.
  void close() noexcept;
  // Blocks until no dispatch, cancel or cleanup callback is running on a caller's thread.
  void awaitCallbacks() noexcept;
  // Completes all requests that the driver still has with `kDeviceGone`, and blocks until their
  // waiting callers have left.
  void abandon() noexcept;

  // Open until `close`: for calls into the driver on callers' threads.
  CallbackGate& gate() { return gate_; }

  // For the request. Calls the driver as soon as it is this thread's turn.
  template <typename Callback>
  void callDriver(Callback callback) ZELTA_EXCLUDES(turn_) {
    if (callbacks_ == Callbacks::kOverlapping) return callback();
    const platform::MutexLock lock(turn_);
    callback();
  }
  // For the request. Keeps a reference on it until `release`, which gives that back, or null.
  void keep(WdfRequest& request) ZELTA_EXCLUDES(mutex_);
  framework::ComPtr<WdfRequest> release(WdfRequest& request) ZELTA_EXCLUDES(mutex_);

 private:
  friend class BlockingControl;

  // Null if its buffers cannot be allocated.
  framework::ComPtr<WdfRequest> make(const framework::ComPtr<WdfFile>& file,
                                     const IoControl& control,
                                     std::shared_ptr<Operation> operation) noexcept;
  // Returns when the driver's callback has. False if the driver keeps the request, and the
  // engine with it.
  [[nodiscard]] bool dispatch(WdfRequest& request);
  // The kept request of that operation, or any; null if there is none.
  framework::ComPtr<WdfRequest> findKept(const Operation* operation) ZELTA_EXCLUDES(mutex_);

  const SharedDriverErrors errors_;
  const framework::ComPtr<WdfQueue> queue_;
  const bool served_;  // the queue has a callback for I/O controls
  const Callbacks callbacks_;
  platform::Mutex turn_;  // held during each callback, if they come one at a time
  CallbackGate gate_;     // threads that call the driver
  CallbackGate waiting_;  // threads that wait for a request that the driver keeps
  platform::Mutex mutex_;
  WdfRequest* kept_ ZELTA_GUARDED_BY(mutex_) = nullptr;  // the newest; linked by `nextKept_`
};

// One I/O control whose caller waits for it, for a scope, on one thread. The result is valid while
// this object lives.
class BlockingControl {
 public:
  // Cancels if the time runs out before the driver has completed the request.
  BlockingControl(IoEngine& engine, const framework::ComPtr<WdfFile>& file,
                  const IoControl& control, std::chrono::milliseconds limit);
  BlockingControl(const BlockingControl&) = delete;
  BlockingControl& operator=(const BlockingControl&) = delete;

  const IoStatus& completion() const { return completion_; }
  ConstBytes output() const { return output_; }

 private:
  // False if the time ran out. The thread is then outside the driver.
  [[nodiscard]] bool awaitCompletion(IoEngine& engine, std::chrono::milliseconds limit);

  CallbackGate::Pass inside_;
  CallbackGate::Pass waiting_;
  // Released before the thread leaves the driver: the last release may run the driver's cleanup.
  framework::ComPtr<WdfRequest> request_;
  IoStatus completion_;
  ConstBytes output_;
};

}  // namespace zelta::host
