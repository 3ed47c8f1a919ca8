// The framework's device object and the initialiser that precedes it.
//
// Ownership: the device owns its queue and keeps its open files; all of them are deleted with it.
// It references the driver's callback object until `detach`.
// Threads: any; `dispose` and `detach` are the host's, when no I/O is under way.
#pragma once

#include <string>
#include <vector>

#include "framework/com_object.h"
#include "host/wdf_file.h"
#include "host/wdf_queue.h"

namespace zelta::host {

class WdfDriver;

// Only the locking constraint is kept; the rest is refused.
class WdfDeviceInitialize final
    : public framework::ComObject<WdfDeviceInitialize, framework::IWDFDeviceInitialize> {
 public:
  explicit WdfDeviceInitialize(SharedDriverErrors errors) : errors_(std::move(errors)) {}

  void ZELTA_STDMETHODCALLTYPE SetFilter() override;
  void ZELTA_STDMETHODCALLTYPE SetLockingConstraint(framework::EnumValue constraint) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveDevicePropertyStore(const wchar_t* service, framework::EnumValue flags, void** store,
                              framework::EnumValue* disposition) override;
  void ZELTA_STDMETHODCALLTYPE SetPowerPolicyOwnership(framework::BOOL owner) override;
  void ZELTA_STDMETHODCALLTYPE AutoForwardCreateCleanupClose(framework::EnumValue forward) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveDeviceInstanceId(wchar_t* id, framework::DWORD* length) override;
  void ZELTA_STDMETHODCALLTYPE SetPnpCapability(framework::EnumValue capability,
                                                framework::EnumValue value) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE
  GetPnpCapability(framework::EnumValue capability) override;

  framework::EnumValue lockingConstraint() const { return constraint_; }

 private:
  const SharedDriverErrors errors_;
  framework::EnumValue constraint_ = 0;
};

class WdfDevice final : public WdfObject<WdfDevice, framework::IWDFDevice> {
 public:
  WdfDevice(SharedDriverErrors errors, WdfDriver* driver, framework::IUnknown* callback);

  // Null once the driver object is gone.
  void ZELTA_STDMETHODCALLTYPE GetDriver(framework::IWDFDriver** driver) override;
  void ZELTA_STDMETHODCALLTYPE GetDefaultIoQueue(framework::IWDFIoQueue** queue) override;
  // Only a first, default queue of parallel dispatch; anything else is not implemented.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateIoQueue(framework::IUnknown* callback,
                                                           framework::BOOL defaultQueue,
                                                           framework::EnumValue dispatchType,
                                                           framework::BOOL powerManaged,
                                                           framework::BOOL allowZeroLength,
                                                           framework::IWDFIoQueue** queue) override;
  // ERROR_ALREADY_EXISTS (183) if the device has published the same interface before.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateDeviceInterface(
      const framework::GUID* interfaceClass, const wchar_t* referenceString) override;
  // ERROR_NOT_FOUND (1168) if there is no such interface.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  AssignDeviceInterfaceState(const framework::GUID* interfaceClass, const wchar_t* referenceString,
                             framework::BOOL enable) override;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveDevicePropertyStore(const wchar_t* service, framework::EnumValue flags, void** store,
                              framework::EnumValue* disposition) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveDeviceInstanceId(wchar_t* id, framework::DWORD* length) override;
  void ZELTA_STDMETHODCALLTYPE GetDefaultIoTarget(void** target) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfFile(const wchar_t* name,
                                                           void** file) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceName(wchar_t* name,
                                                                framework::DWORD* length) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE PostEvent(const framework::GUID& event,
                                                       framework::EnumValue type,
                                                       framework::BYTE* data,
                                                       framework::DWORD size) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(
      framework::IWDFIoQueue* queue, framework::EnumValue type, framework::BOOL forward) override;
  void ZELTA_STDMETHODCALLTYPE SetPnpState(framework::EnumValue state,
                                           framework::EnumValue value) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetPnpState(framework::EnumValue state) override;
  void ZELTA_STDMETHODCALLTYPE CommitPnpState() override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateRequest(framework::IUnknown* callback, framework::IWDFObject* parent,
                framework::IWDFIoRequest** request) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateSymbolicLink(const wchar_t* link) override;

  // For the host. The driver's callbacks, each null if its object does not have it.
  framework::IPnpCallback* pnp() const { return pnp_.get(); }
  framework::IPnpCallbackHardware* hardware() const { return hardware_.get(); }
  framework::ComPtr<WdfQueue> defaultQueue() const ZELTA_EXCLUDES(mutex_);
  // The reference strings of the enabled interfaces, in the order of their creation.
  std::vector<std::wstring> interfaces() const ZELTA_EXCLUDES(mutex_);
  // A file of an enabled interface; null if there is none of that reference string.
  framework::ComPtr<WdfFile> openFile(const std::wstring& name) ZELTA_EXCLUDES(mutex_);
  // Releases the file.
  void closeFile(const WdfFile& file) ZELTA_EXCLUDES(mutex_);
  // Releases the driver's objects and cuts the link to the driver object. Call after `dispose`.
  void detach() ZELTA_EXCLUDES(mutex_);

 private:
  friend class WdfObject<WdfDevice, framework::IWDFDevice>;
  struct PublishedInterface {
    framework::GUID interfaceClass;
    std::wstring name;
    bool enabled;
  };

  void disposeChildren() ZELTA_EXCLUDES(mutex_);
  PublishedInterface* findInterface(const framework::GUID& interfaceClass, const std::wstring& name)
      ZELTA_REQUIRES(mutex_);

  ParentLink<WdfDriver> driver_;
  framework::ComPtr<framework::IUnknown> callback_;
  framework::ComPtr<framework::IPnpCallback> pnp_;
  framework::ComPtr<framework::IPnpCallbackHardware> hardware_;

  mutable platform::Mutex mutex_;
  framework::ComPtr<WdfQueue> queue_ ZELTA_GUARDED_BY(mutex_);
  std::vector<PublishedInterface> interfaces_ ZELTA_GUARDED_BY(mutex_);
  std::vector<framework::ComPtr<WdfFile>> files_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::host
