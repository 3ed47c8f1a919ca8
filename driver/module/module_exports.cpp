// The names that the module exports; exactly these five are in the linker's list.
#include <cstdint>

#include "driver/module/module.h"

namespace {

// The framework version that the driver was built for. The host reads three numbers; the third,
// its service number, is 0.
struct FrameworkVersion {
  std::uint32_t major;
  std::uint32_t minor;
  std::uint32_t service;
};

}  // namespace

extern "C" {

extern const FrameworkVersion Microsoft_WDF_UMDF_Version;
const FrameworkVersion Microsoft_WDF_UMDF_Version = {1, 11, 0};

zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE
DllGetClassObject(zelta::framework::REFCLSID classId, zelta::framework::REFIID iid, void** out) {
  return zelta::module::getClassObject(classId, iid, out);
}

zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllCanUnloadNow() {
  return zelta::module::canUnload();
}

zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllRegisterServer() {
  return zelta::module::registerServer();
}

zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllUnregisterServer() {
  return zelta::module::unregisterServer();
}

}  // extern "C"
