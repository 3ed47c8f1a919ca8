// A reader's device without the framework: the device lock, a cancel callback that counts its
// references, and the order in which requests were completed.
//
// Any thread may call; `onCancel` is set while no request is cancelled, the other hooks while the
// reader is idle.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "driver/request/io_request.h"
#include "driver/request/reader_device.h"
#include "platform/sync/sync.h"
#include "tests/support/collected.h"

namespace zelta::test {

class FakeReaderDevice final : public ReaderDevice {
 public:
  FakeReaderDevice() = default;
  // Fails the running test if a reference on the cancel callback is still out.
  ~FakeReaderDevice() { EXPECT_EQ(callback_.references, 0) << "cancel callback not released"; }
  FakeReaderDevice(const FakeReaderDevice&) = delete;
  FakeReaderDevice& operator=(const FakeReaderDevice&) = delete;

  // Throws std::runtime_error ("no lock") while the test says so.
  platform::CriticalSection& deviceLock() override {
    if (failsLock_) throw std::runtime_error("no lock");
    if (onLock) onLock();
    return lock_;
  }
  framework::HRESULT queryInterface(framework::REFIID iid, void** out) override {
    *out = nullptr;
    const framework::HRESULT result = queryResult_;
    return result != framework::kOk ? result : callback_.QueryInterface(iid, out);
  }

  // Sets the result of `queryInterface`; 0 gives the callback.
  void setQueryResult(framework::HRESULT result) { queryResult_ = result; }
  void failLock(bool fail) { failsLock_ = fail; }
  // Whether some thread holds the device lock. Costs a thread.
  bool lockIsHeld() {
    bool held = true;
    std::thread([&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
      if (!lock_.tryEnter()) return;
      held = false;
      lock_.leave();
    }).join();
    return held;
  }
  int callbackReferences() const { return callback_.references; }

  // Requests in the order of their completion.
  void noteCompletion(const IoRequest& request) {
    if (onCompletion) onCompletion();
    completed_.add(&request);
  }
  std::vector<const IoRequest*> completed() const { return completed_.all(); }

  // Called by the cancel callback, with the device lock held. Empty: nothing.
  std::function<void(IoRequest&)> onCancel;
  // Called by each completion, and by each thread that is about to take the device lock.
  std::function<void()> onCompletion;
  std::function<void()> onLock;

 private:
  // Requests here are none of the framework's, so their double calls `onCancel` by itself; the
  // callback only has to be the one that the device gave out.
  struct Callback final : framework::IRequestCallbackCancel {
    framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID wanted,
                                                              void** out) override {
      if (wanted != framework::kIidRequestCallbackCancel) return framework::kNoInterface;
      *out = static_cast<framework::IRequestCallbackCancel*>(this);
      AddRef();
      return framework::kOk;
    }
    framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override {
      return static_cast<framework::ULONG>(++references);
    }
    framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override {
      const int left = --references;
      EXPECT_GE(left, 0) << "cancel callback released too often";
      return static_cast<framework::ULONG>(left);
    }
    void ZELTA_STDMETHODCALLTYPE OnCancel(framework::IWDFIoRequest* /*request*/) override {
      ADD_FAILURE() << "requests of this device are not the framework's";
    }

    std::atomic<int> references{0};
  };

  platform::CriticalSection lock_;
  std::atomic<framework::HRESULT> queryResult_{0};
  std::atomic<bool> failsLock_{false};
  Collected<const IoRequest*> completed_;
  Callback callback_;
};

}  // namespace zelta::test
