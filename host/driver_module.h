// Loads and unloads the driver's shared module, finds its exports and makes its driver object.
//
// Ownership: a module that is still loaded at destruction stays loaded for good; call `unload` to
// unload it, which asks the module first. Code that may still run is never unmapped. Threads: the
// owner's.
#pragma once

#include <string>

#include "framework/wdf.h"
#include "platform/process/module_loader.h"

namespace zelta::host {

// The framework version that this host speaks: the same major, no higher minor.
inline constexpr std::uint32_t kFrameworkMajor = 1;
inline constexpr std::uint32_t kFrameworkMinor = 11;

class DriverModule {
 public:
  // Throws HostError: not loadable, an export is missing, the version is not supported.
  explicit DriverModule(const std::string& path);
  ~DriverModule() = default;
  DriverModule(const DriverModule&) = delete;
  DriverModule& operator=(const DriverModule&) = delete;

  // Asks the class factory, which is kept until `unload`: the module's log goes on while an object
  // of the module is in use. Throws HostError.
  framework::ComPtr<framework::IDriverEntry> createDriver();

  bool loaded() const { return module_ != nullptr; }
  const std::string& path() const { return path_; }
  // False if the module answers that it may not be unloaded, or the system does not do it.
  [[nodiscard]] bool unload() noexcept;

 private:
  using GetClassObject = framework::HRESULT(ZELTA_STDMETHODCALLTYPE*)(framework::REFCLSID,
                                                                      framework::REFIID, void**);
  using CanUnloadNow = framework::HRESULT(ZELTA_STDMETHODCALLTYPE*)();

  void* exported(const char* name) const;
  void checkExports();
  void findFactory();

  const std::string path_;
  platform::ModuleHandle module_ = nullptr;
  framework::ComPtr<framework::IClassFactory> factory_;
  GetClassObject getClassObject_ = nullptr;
  CanUnloadNow canUnloadNow_ = nullptr;
};

// "0x8007001F".
std::string codeText(framework::HRESULT code);

}  // namespace zelta::host
