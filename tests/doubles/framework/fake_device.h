// The device of the fake driver module (fake_driver.h): its callbacks and what it does with each
// I/O control.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <vector>

#include "contract/status.h"
#include "framework/com_object.h"
#include "framework/wdf.h"
#include "platform/sync/sync.h"
#include "tests/doubles/framework/fake_driver.h"

namespace zelta::test::fake_driver {

using framework::ComPtr;
using framework::HRESULT;
using framework::IWDFDevice;
using framework::IWDFIoRequest;
using framework::SIZE_T;
using framework::ULONG;

inline constexpr HRESULT kFailure = framework::hresult(kFailureCode);
inline constexpr HRESULT kCancelled = status::kCancelled;
inline constexpr HRESULT kNoMemory = status::kOutOfMemory;

// The module's living objects.
inline std::atomic<int> liveObjects{0};

// Counts an object of the module.
struct Counted {
  Counted() { ++liveObjects; }
  ~Counted() { --liveObjects; }
};

// True if the step `what` is set to fail.
bool failing(const char* what);
HRESULT resultOf(const char* what);
// Appends a line to the trace file.
void trace(const char* callback);

class FakeDevice final
    : public framework::ComObject<FakeDevice, framework::IPnpCallbackHardware,
                                  framework::IPnpCallback, framework::IRequestCallbackCancel,
                                  framework::IQueueCallbackDeviceIoControl> {
 public:
  HRESULT ZELTA_STDMETHODCALLTYPE OnPrepareHardware(IWDFDevice* device) override {
    trace("OnPrepareHardware");
    if (!failing(kFailNoQueue)) {
      ComPtr<framework::IWDFIoQueue> queue;
      const HRESULT result = device->CreateIoQueue(static_cast<framework::IPnpCallback*>(this), 1,
                                                   framework::kDispatchParallel, 0, 1, queue.put());
      if (framework::failed(result)) return result;
    }
    return resultOf(kFailPrepare);
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnReleaseHardware(IWDFDevice*) override {
    trace("OnReleaseHardware");
    return framework::kOk;
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnD0Entry(IWDFDevice*, framework::EnumValue) override {
    trace("OnD0Entry");
    return resultOf(kFailD0Entry);
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnD0Exit(IWDFDevice*, framework::EnumValue) override {
    trace("OnD0Exit");
    releaseWaiting(kCancelled);
    endBlocking();
    return framework::kOk;
  }
  void ZELTA_STDMETHODCALLTYPE OnSurpriseRemoval(IWDFDevice*) override {}
  HRESULT ZELTA_STDMETHODCALLTYPE OnQueryRemove(IWDFDevice*) override { return framework::kOk; }
  HRESULT ZELTA_STDMETHODCALLTYPE OnQueryStop(IWDFDevice*) override { return framework::kOk; }

  void ZELTA_STDMETHODCALLTYPE OnCancel(IWDFIoRequest* request) override {
    trace("OnCancel");
    const Inside inside(*this);
    ++counters_[kCancels];
    if (marking_ == request) ++counters_[kCancelsWhileMarking];
    if (framework::succeeded(request->UnmarkCancelable())) ++counters_[kUnmarkedInCancel];
    {
      const platform::MutexLock lock(mutex_);
      const auto entry = std::find(waiting_.begin(), waiting_.end(), request);
      if (entry != waiting_.end()) waiting_.erase(entry);
    }
    request->CompleteWithInformation(kCancelled, 0);
  }

  void ZELTA_STDMETHODCALLTYPE OnDeviceIoControl(framework::IWDFIoQueue* queue,
                                                 IWDFIoRequest* request, ULONG code,
                                                 SIZE_T inLength, SIZE_T outLength) override;

  // Completes requests that wait for ever, which the host has already completed.
  void endForEver() {
    std::vector<IWDFIoRequest*> forEver;
    {
      const platform::MutexLock lock(mutex_);
      forEver.swap(forEver_);
    }
    for (IWDFIoRequest* request : forEver) {
      request->Complete(framework::kOk);
      request->Release();
    }
  }

 private:
  friend class framework::ComObject<FakeDevice, framework::IPnpCallbackHardware,
                                    framework::IPnpCallback, framework::IRequestCallbackCancel,
                                    framework::IQueueCallbackDeviceIoControl>;
  ~FakeDevice() { trace("device destroyed"); }

  // A running callback, for a scope.
  class Inside {
   public:
    explicit Inside(FakeDevice& device) : device_(device) {
      const std::uint32_t now = ++device_.atOnce_;
      std::uint32_t most = device_.counters_[kMostAtOnce];
      while (most < now && !device_.counters_[kMostAtOnce].compare_exchange_weak(most, now)) {
      }
    }
    ~Inside() { --device_.atOnce_; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    FakeDevice& device_;
  };

  void data(framework::IWDFIoQueue& queue, IWDFIoRequest& request, ULONG code, SIZE_T inLength,
            SIZE_T outLength);
  void waiting(IWDFIoRequest& request, ULONG code);

  void wait(IWDFIoRequest& request) {
    {
      const platform::MutexLock lock(mutex_);
      waiting_.push_back(&request);
    }
    // The request must not be touched once it is marked and another thread can complete it.
    marking_ = &request;
    request.MarkCancelable(this);
    marking_ = nullptr;
  }

  void block() {
    platform::MutexLock lock(mutex_);
    ++blocked_;
    const unsigned mine = unblocks_;
    changed_.notifyAll();
    changed_.wait(
        lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return unblocks_ != mine || !blocking_; });
    --blocked_;
  }

  void waitForBlocked(std::uint32_t wanted) {
    platform::MutexLock lock(mutex_);
    changed_.wait(
        lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return blocked_ >= wanted || !blocking_; });
  }

  void unblock() {
    const platform::MutexLock lock(mutex_);
    ++unblocks_;
    changed_.notifyAll();
  }

  void endBlocking() {
    const platform::MutexLock lock(mutex_);
    blocking_ = false;
    changed_.notifyAll();
  }

  std::array<std::uint32_t, 2> releaseWaiting(HRESULT status) {
    std::array<std::uint32_t, 2> counts = {0, 0};
    const platform::MutexLock lock(mutex_);
    while (!waiting_.empty()) {
      IWDFIoRequest* request = waiting_.back();
      waiting_.pop_back();
      // The reference keeps the request alive meanwhile.
      const ComPtr<IWDFIoRequest> keep(request);
      const bool withdrawn = framework::succeeded(request->UnmarkCancelable());
      if (withdrawn) request->CompleteWithInformation(status, 0);
      ++counts[withdrawn ? 0 : 1];
    }
    return counts;
  }

  Counted counted_;
  std::array<std::atomic<std::uint32_t>, kCounterCount> counters_{};
  std::atomic<std::uint32_t> atOnce_{0};
  static thread_local IWDFIoRequest* marking_;

  std::atomic<IWDFIoRequest*> kept_{nullptr};

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  unsigned blocked_ ZELTA_GUARDED_BY(mutex_) = 0;
  bool blocking_ ZELTA_GUARDED_BY(mutex_) = true;
  unsigned unblocks_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::vector<IWDFIoRequest*> waiting_ ZELTA_GUARDED_BY(mutex_);
  std::vector<IWDFIoRequest*> forEver_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test::fake_driver
