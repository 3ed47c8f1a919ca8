// A reader's device without the framework: the device lock and a cancel callback that counts its
// references and hands a cancelled request to the reader.
#pragma once

#include <atomic>
#include <functional>

#include "driver/request/io_request.h"
#include "driver/request/reader_device.h"

namespace zelta::test {

class FakeReaderDevice final : public ReaderDevice {
 public:
  FakeReaderDevice() = default;
  // Fails the running test where a reference on the cancel callback is still out.
  ~FakeReaderDevice();
  FakeReaderDevice(const FakeReaderDevice&) = delete;
  FakeReaderDevice& operator=(const FakeReaderDevice&) = delete;

  platform::CriticalSection& deviceLock() override { return lock_; }
  framework::HRESULT queryInterface(framework::REFIID iid, void** out) override;

  // What `queryInterface` gives from now on; 0 gives the callback.
  void setQueryResult(framework::HRESULT result) { queryResult_ = result; }
  // Whether some thread holds the device lock. Costs a thread.
  bool lockIsHeld();
  int callbackReferences() const { return callback_.references; }

  // What the cancel callback does, with the device lock held.
  std::function<void(IoRequest&)> onCancel;

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
  Callback callback_;
};

}  // namespace zelta::test
