// Makes the driver object for the host. Any thread.
#pragma once

#include "driver/request/module_reference.h"
#include "framework/com_object.h"

namespace zelta {

class ClassFactory final : public framework::ComObject<ClassFactory, framework::IClassFactory> {
 public:
  // Makes a new driver object. Aggregation is refused.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateInstance(framework::IUnknown* outer,
                                                            framework::REFIID wanted,
                                                            void** out) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE LockServer(framework::BOOL lock) override;

 private:
  ModuleReference module_;
};

}  // namespace zelta
