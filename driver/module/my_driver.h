// The driver object, which the host asks the module for. The framework calls it when it starts,
// finds a device and ends. It has no state.
//
// The framework calls it one operation at a time; exceptions do not leave it.
#pragma once

#include "driver/request/module_reference.h"
#include "framework/com_object.h"
#include "framework/wdf.h"

namespace zelta {

class CMyDriver final : public framework::ComObject<CMyDriver, framework::IDriverEntry> {
 public:
  CMyDriver();

  // Logs the start banner, once per loaded module.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE OnInitialize(framework::IWDFDriver* driver) override;
  // The result of the device's creation.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  OnDeviceAdd(framework::IWDFDriver* driver, framework::IWDFDeviceInitialize* init) override;
  void ZELTA_STDMETHODCALLTYPE OnDeinitialize(framework::IWDFDriver* driver) override;

 private:
  ModuleReference module_;
};

}  // namespace zelta
