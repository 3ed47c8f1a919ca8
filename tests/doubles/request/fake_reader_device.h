// A reader's device without the framework: the device lock, a cancel callback that counts its
// references, and the order in which requests were completed.
//
// Any thread may call; `onCancel` is set while no request is cancelled, the other hooks while
// nothing is going on in the reader.
#pragma once

#include <atomic>
#include <functional>
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
  ~FakeReaderDevice();
  FakeReaderDevice(const FakeReaderDevice&) = delete;
  FakeReaderDevice& operator=(const FakeReaderDevice&) = delete;

  // Throws std::runtime_error ("no lock") while it was told to.
  platform::CriticalSection& deviceLock() override;
  framework::HRESULT queryInterface(framework::REFIID iid, void** out) override;

  // What `queryInterface` gives from now on; 0 gives the callback.
  void setQueryResult(framework::HRESULT result) { queryResult_ = result; }
  void failLock(bool fail) { failsLock_ = fail; }
  // Whether some thread holds the device lock. Costs a thread.
  bool lockIsHeld();
  int callbackReferences() const { return callback_.references; }

  // Requests in the order of their completion.
  void noteCompletion(const IoRequest& request);
  std::vector<const IoRequest*> completed() const { return completed_.all(); }

  // What the cancel callback does, with the device lock held. Empty: nothing.
  std::function<void(IoRequest&)> onCancel;
  // Called by each completion, and by whoever is about to take the device lock.
  std::function<void()> onCompletion;
  std::function<void()> onLock;

 private:
  // Requests here are none of the framework's, so their double calls `onCancel` by itself; the
  // callback only has to be the one that the device gave out.
  struct Callback final : framework::IRequestCallbackCancel {
    framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID wanted,
                                                              void** out) override;
    framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override;
    framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override;
    void ZELTA_STDMETHODCALLTYPE OnCancel(framework::IWDFIoRequest* request) override;
    std::atomic<int> references{0};
  };

  platform::CriticalSection lock_;
  std::atomic<framework::HRESULT> queryResult_{0};
  std::atomic<bool> failsLock_{false};
  Collected<const IoRequest*> completed_;
  Callback callback_;
};

}  // namespace zelta::test
