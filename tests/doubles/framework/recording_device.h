// The driver, device initialiser, device and queue objects of the recording framework
// (recording_framework.h, which owns them). Most operations are such as the driver has no use for.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/doubles/framework/recording_framework.h"

namespace zelta::test {

class RecordingQueue final : public RecordingObject<RecordingQueue, framework::IWDFIoQueue> {
 public:
  RecordingQueue(Violations& violations, framework::IUnknown* callback,
                 const QueueArguments& arguments)
      : RecordingObject("queue", violations), arguments_(arguments) {
    if (callback == nullptr) return;
    callback->QueryInterface(framework::IQueueCallbackDeviceIoControl::iid, callback_.putVoid());
  }

  framework::IQueueCallbackDeviceIoControl* callback() const { return callback_.get(); }
  const QueueArguments& arguments() const { return arguments_; }
  void letGo() { callback_.reset(); }

  void ZELTA_STDMETHODCALLTYPE GetDevice(framework::IWDFDevice** device) override {
    *device = nullptr;
    unexpected("GetDevice");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(framework::EnumValue,
                                                                         framework::BOOL) override {
    return unexpected("ConfigureRequestDispatching");
  }
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetState(framework::ULONG*,
                                                        framework::ULONG*) override {
    unexpected("GetState");
    return 0;
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveNextRequest(framework::IWDFIoRequest**) override {
    return unexpected("RetrieveNextRequest");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveNextRequestByFileObject(framework::IWDFFile*, framework::IWDFIoRequest**) override {
    return unexpected("RetrieveNextRequestByFileObject");
  }
  void ZELTA_STDMETHODCALLTYPE Start() override { unexpected("Start"); }
  void ZELTA_STDMETHODCALLTYPE Stop(framework::IUnknown*) override { unexpected("Stop"); }
  void ZELTA_STDMETHODCALLTYPE StopSynchronously() override { unexpected("StopSynchronously"); }
  void ZELTA_STDMETHODCALLTYPE Drain(framework::IUnknown*) override { unexpected("Drain"); }
  void ZELTA_STDMETHODCALLTYPE DrainSynchronously() override { unexpected("DrainSynchronously"); }
  void ZELTA_STDMETHODCALLTYPE Purge(framework::IUnknown*) override { unexpected("Purge"); }
  void ZELTA_STDMETHODCALLTYPE PurgeSynchronously() override { unexpected("PurgeSynchronously"); }

 private:
  const QueueArguments arguments_;
  framework::ComPtr<framework::IQueueCallbackDeviceIoControl> callback_;
};

class RecordingDevice final : public RecordingObject<RecordingDevice, framework::IWDFDevice> {
 public:
  RecordingDevice(Violations& violations, framework::IUnknown* callback)
      : RecordingObject("device", violations), callback_(callback) {}

  framework::IUnknown* callback() const { return callback_.get(); }
  RecordingQueue* queue() const { return queue_.get(); }
  const std::vector<PublishedInterface>& interfaces() const { return interfaces_; }
  // The driver's objects go.
  void letGo() {
    if (queue_) queue_->letGo();
    callback_.reset();
  }

  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateIoQueue(framework::IUnknown* callback, framework::BOOL defaultQueue,
                framework::EnumValue dispatchType, framework::BOOL powerManaged,
                framework::BOOL allowZeroLength, framework::IWDFIoQueue** queue) override {
    touch("CreateIoQueue");
    if (queue_) return unexpected("a second CreateIoQueue");
    queue_ = std::make_unique<RecordingQueue>(
        violations(), callback,
        QueueArguments{defaultQueue, dispatchType, powerManaged, allowZeroLength});
    *queue = queue_->reference();
    return framework::kOk;
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateDeviceInterface(const framework::GUID* interfaceClass, const wchar_t* name) override {
    touch("CreateDeviceInterface");
    interfaces_.push_back({*interfaceClass, name});
    return framework::kOk;
  }

  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDevicePropertyStore(
      const wchar_t*, framework::EnumValue, void**, framework::EnumValue*) override {
    return unexpected("RetrieveDevicePropertyStore");
  }
  void ZELTA_STDMETHODCALLTYPE GetDriver(framework::IWDFDriver** driver) override {
    *driver = nullptr;
    unexpected("GetDriver");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceInstanceId(wchar_t*,
                                                                      framework::DWORD*) override {
    return unexpected("RetrieveDeviceInstanceId");
  }
  void ZELTA_STDMETHODCALLTYPE GetDefaultIoTarget(void** target) override {
    *target = nullptr;
    unexpected("GetDefaultIoTarget");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfFile(const wchar_t*, void**) override {
    return unexpected("CreateWdfFile");
  }
  void ZELTA_STDMETHODCALLTYPE GetDefaultIoQueue(framework::IWDFIoQueue** queue) override {
    *queue = nullptr;
    unexpected("GetDefaultIoQueue");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE AssignDeviceInterfaceState(const framework::GUID*,
                                                                        const wchar_t*,
                                                                        framework::BOOL) override {
    return unexpected("AssignDeviceInterfaceState");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceName(wchar_t*,
                                                                framework::DWORD*) override {
    return unexpected("RetrieveDeviceName");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE PostEvent(const framework::GUID&, framework::EnumValue,
                                                       framework::BYTE*,
                                                       framework::DWORD) override {
    return unexpected("PostEvent");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(framework::IWDFIoQueue*,
                                                                         framework::EnumValue,
                                                                         framework::BOOL) override {
    return unexpected("ConfigureRequestDispatching");
  }
  void ZELTA_STDMETHODCALLTYPE SetPnpState(framework::EnumValue, framework::EnumValue) override {
    unexpected("SetPnpState");
  }
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetPnpState(framework::EnumValue) override {
    unexpected("GetPnpState");
    return 0;
  }
  void ZELTA_STDMETHODCALLTYPE CommitPnpState() override { unexpected("CommitPnpState"); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateRequest(framework::IUnknown*,
                                                           framework::IWDFObject*,
                                                           framework::IWDFIoRequest**) override {
    return unexpected("CreateRequest");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateSymbolicLink(const wchar_t*) override {
    return unexpected("CreateSymbolicLink");
  }

 private:
  framework::ComPtr<framework::IUnknown> callback_;
  std::unique_ptr<RecordingQueue> queue_;
  std::vector<PublishedInterface> interfaces_;
};

class RecordingDriver final : public RecordingObject<RecordingDriver, framework::IWDFDriver> {
 public:
  explicit RecordingDriver(Violations& violations) : RecordingObject("driver", violations) {}

  RecordingDevice* device() const { return device_.get(); }

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateDevice(framework::IWDFDeviceInitialize*,
                                                          framework::IUnknown* callback,
                                                          framework::IWDFDevice** device) override {
    touch("CreateDevice");
    if (device_) return unexpected("a second CreateDevice");
    device_ = std::make_unique<RecordingDevice>(violations(), callback);
    *device = device_->reference();
    return framework::kOk;
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfObject(framework::IUnknown*,
                                                             framework::IWDFObject*,
                                                             framework::IWDFObject**) override {
    return unexpected("CreateWdfObject");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreatePreallocatedWdfMemory(framework::BYTE*, framework::SIZE_T, framework::IUnknown*,
                              framework::IWDFObject*, framework::IWDFMemory**) override {
    return unexpected("CreatePreallocatedWdfMemory");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfMemory(framework::SIZE_T,
                                                             framework::IUnknown*,
                                                             framework::IWDFObject*,
                                                             framework::IWDFMemory**) override {
    return unexpected("CreateWdfMemory");
  }
  framework::BOOL ZELTA_STDMETHODCALLTYPE IsVersionAvailable(void*) override {
    unexpected("IsVersionAvailable");
    return 0;
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveVersionString(wchar_t*,
                                                                   framework::DWORD*) override {
    return unexpected("RetrieveVersionString");
  }

 private:
  std::unique_ptr<RecordingDevice> device_;
};

}  // namespace zelta::test
