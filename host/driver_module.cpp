#include "host/driver_module.h"

#include <cstdio>

#include "contract/class_ids.h"
#include "host/driver_host.h"

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;

namespace {

// What the module exports as Microsoft_WDF_UMDF_Version.
struct FrameworkVersion {
  std::uint32_t major;
  std::uint32_t minor;
};

}  // namespace

std::string codeText(HRESULT code) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
  return text;
}

DriverModule::DriverModule(const std::string& path) : path_(path) {
  std::string reason;
  module_ = platform::openModule(path, &reason);
  if (module_ == nullptr) {
    throw HostError("driver module '" + path + "' cannot be loaded: " + reason);
  }
  try {
    checkExports();
  } catch (const HostError&) {
    (void)platform::closeModule(module_);
    throw;
  }
}

void* DriverModule::exported(const char* name) const {
  void* address = platform::moduleSymbol(module_, name);
  if (address == nullptr) {
    throw HostError("'" + path_ + "' is not a driver module: it does not export " + name);
  }
  return address;
}

void DriverModule::checkExports() {
  getClassObject_ = reinterpret_cast<GetClassObject>(exported("DllGetClassObject"));
  canUnloadNow_ = reinterpret_cast<CanUnloadNow>(exported("DllCanUnloadNow"));
  const auto* version =
      static_cast<const FrameworkVersion*>(exported("Microsoft_WDF_UMDF_Version"));
  if (version->major != kFrameworkMajor || version->minor > kFrameworkMinor) {
    throw HostError("driver module '" + path_ + "' was built for framework version " +
                    std::to_string(version->major) + "." + std::to_string(version->minor) +
                    "; this host supports " + std::to_string(kFrameworkMajor) + ".0 to " +
                    std::to_string(kFrameworkMajor) + "." + std::to_string(kFrameworkMinor));
  }
}

void DriverModule::findFactory() {
  const HRESULT result =
      getClassObject_(kDriverClassId, framework::IClassFactory::iid, factory_.putVoid());
  if (result == framework::kClassNotAvailable) {
    throw HostError("'" + path_ + "' does not have the driver class");
  }
  if (framework::failed(result) || !factory_) {
    throw HostError("DllGetClassObject of '" + path_ + "' failed with code " + codeText(result));
  }
}

ComPtr<framework::IDriverEntry> DriverModule::createDriver() {
  if (!factory_) findFactory();
  ComPtr<framework::IDriverEntry> entry;
  const HRESULT result =
      factory_->CreateInstance(nullptr, framework::IDriverEntry::iid, entry.putVoid());
  if (framework::failed(result) || !entry) {
    throw HostError("CreateInstance of the driver object failed with code " + codeText(result));
  }
  return entry;
}

bool DriverModule::unload() noexcept {
  if (module_ == nullptr) return true;
  factory_.reset();
  if (canUnloadNow_() != framework::kOk || !platform::closeModule(module_)) return false;
  module_ = nullptr;
  return true;
}

}  // namespace zelta::host
