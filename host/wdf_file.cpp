#include "host/wdf_file.h"

#include <algorithm>

#include "host/wdf_device.h"

namespace zelta::host {

using framework::DWORD;
using framework::HRESULT;

WdfFile::WdfFile(SharedDriverErrors errors, WdfDevice* device, std::wstring name)
    : WdfObject(std::move(errors)), device_(device), name_(std::move(name)) {}

HRESULT WdfFile::RetrieveFileName(wchar_t* name, DWORD* lengthInCharacters) {
  if (lengthInCharacters == nullptr) return framework::kPointer;
  const DWORD capacity = *lengthInCharacters;
  const DWORD needed = static_cast<DWORD>(name_.size() + 1);
  *lengthInCharacters = needed;
  if (name == nullptr || capacity < needed) return kInsufficientBuffer;
  std::copy_n(name_.c_str(), needed, name);
  return framework::kOk;
}

void WdfFile::GetDevice(framework::IWDFDevice** device) {
  if (device != nullptr) *device = device_.get().detach();
}

}  // namespace zelta::host
