#include "driver/module/class_factory.h"

#include "contract/status.h"
#include "driver/module/my_driver.h"

namespace zelta {

framework::HRESULT ClassFactory::CreateInstance(framework::IUnknown* outer,
                                                framework::REFIID wanted, void** out) {
  if (out == nullptr) return framework::kPointer;
  *out = nullptr;
  if (outer != nullptr) return framework::kNoAggregation;
  const auto driver = framework::ComPtr<CMyDriver>::adopt(framework::createObject<CMyDriver>());
  if (!driver) return status::kOutOfMemory;
  return driver->QueryInterface(wanted, out);
}

framework::HRESULT ClassFactory::LockServer(framework::BOOL lock) {
  if (lock != 0) {
    ModuleReference::lock();
  } else {
    ModuleReference::unlock();
  }
  return framework::kOk;
}

}  // namespace zelta
