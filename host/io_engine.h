// The I/O of one running device: takes requests, dispatches them, keeps those in flight, cancels.
//
// Ownership: the host makes one per bring-up; files share it, so that a file used after tear-down
// finds a stopped engine. A stopped engine has no threads and no requests.
// Threads: everything from any thread, except `stop` and `abandon`, which are the host's, in this
// order, and not from a callback of the driver's. Both need no memory.
#pragma once

#include <memory>
#include <unordered_map>

#include "host/callback_gate.h"
#include "host/dispatch_threads.h"

namespace zelta::host {

class IoEngine : public std::enable_shared_from_this<IoEngine> {
 public:
  // `queue` may be null: every request is then refused with 0x80070001.
  IoEngine(SharedDriverErrors errors, framework::ComPtr<WdfQueue> queue,
           std::size_t maximumThreads);

  // Always gives an operation; one that could not be begun is completed already.
  std::shared_ptr<IoOperation> submit(const framework::ComPtr<WdfFile>& file,
                                      const IoControl& control, File::Completion completion);
  // Without effect once the engine is stopped: the driver's own shutdown completes what waits.
  void cancel(const Operation& operation);

  // Refuses new requests, completes those not yet dispatched with `kDeviceGone`, and waits until
  // no dispatch or cancel callback of the driver's is running.
  void stop() noexcept;
  // Completes whatever the driver still has with `kDeviceGone`.
  void abandon() noexcept;

  // Open until `stop`: for other calls into the driver that are made on callers' threads.
  CallbackGate& gate() { return gate_; }

  // For the request, which is completed: gives up the reference that kept it in flight.
  framework::ComPtr<WdfRequest> retire(const WdfRequest& request) ZELTA_EXCLUDES(mutex_);

 private:
  void begin(const std::shared_ptr<Operation>& operation, const framework::ComPtr<WdfFile>& file,
             const IoControl& control);
  // False once the engine is stopped.
  bool addToFlight(const framework::ComPtr<WdfRequest>& request) ZELTA_EXCLUDES(mutex_);
  framework::ComPtr<WdfRequest> find(const Operation& operation) ZELTA_EXCLUDES(mutex_);
  // Takes one out of those in flight; null where there is none left.
  framework::ComPtr<WdfRequest> takeAny() ZELTA_EXCLUDES(mutex_);

  const SharedDriverErrors errors_;
  const framework::ComPtr<WdfQueue> queue_;
  const bool served_;  // the queue has a callback for I/O controls
  CallbackGate gate_;
  platform::Mutex mutex_;
  bool taking_ ZELTA_GUARDED_BY(mutex_) = true;
  std::unordered_map<const Operation*, framework::ComPtr<WdfRequest>> inFlight_
      ZELTA_GUARDED_BY(mutex_);
  DispatchThreads threads_;
};

}  // namespace zelta::host
