// The file object of one open handle, through which the driver learns what the caller opened.
#pragma once

#include <string>

#include "host/wdf_object.h"

namespace zelta::host {

class WdfDevice;

class WdfFile final : public WdfObject<WdfFile, framework::IWDFFile> {
 public:
  // `name` is the file's name with its leading backslash.
  WdfFile(SharedDriverErrors errors, WdfDevice* device, std::wstring name);

  // `lengthInCharacters` counts the terminator: the buffer's on entry, the name's on return. If
  // the buffer is absent or too small nothing is copied and the call fails with
  // ERROR_INSUFFICIENT_BUFFER (122).
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveFileName(wchar_t* name, framework::DWORD* lengthInCharacters) override;
  // Null once the device is gone.
  void ZELTA_STDMETHODCALLTYPE GetDevice(framework::IWDFDevice** device) override;

  ParentLink<WdfDevice>& device() { return device_; }

 private:
  ParentLink<WdfDevice> device_;
  const std::wstring name_;
};

}  // namespace zelta::host
