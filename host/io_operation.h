// The caller's side of a request that it does not wait for. It outlives the framework's request
// object, which is destroyed as soon as the driver has released it.
//
// Threads: any.
#pragma once

#include <memory>

#include "host/driver_host.h"
#include "platform/process/wipe.h"
#include "platform/sync/sync.h"

namespace zelta::host {

class IoEngine;

// Keeps "no limit" inside what the clocks can add up.
std::chrono::milliseconds boundedWait(std::chrono::milliseconds limit);

class Operation final : public IoOperation {
 public:
  Operation(std::weak_ptr<IoEngine> engine, File::Completion completion)
      : engine_(std::move(engine)), completion_(std::move(completion)) {}

  ~Operation() override { platform::wipe(result_.output.data(), result_.output.size()); }

  bool wait(std::chrono::milliseconds limit) override ZELTA_EXCLUDES(mutex_);
  bool completed() const override ZELTA_EXCLUDES(mutex_);
  void cancel() override;
  const IoResult& result() const override { return result_; }

  // Calls the completion, then wakes the waiters. At most once.
  void finish(framework::HRESULT status, std::size_t information = 0,
              ConstBytes output = {}) noexcept ZELTA_EXCLUDES(mutex_);

 private:
  const std::weak_ptr<IoEngine> engine_;
  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool completed_ ZELTA_GUARDED_BY(mutex_) = false;
  // Touched by the finishing thread alone until `completed_` is set, constant afterwards.
  File::Completion completion_;
  IoResult result_;
};

}  // namespace zelta::host
