#include "host/wdf_object.h"

namespace zelta::host {

using framework::HRESULT;
using platform::MutexLock;

HRESULT ObjectContext::assign(framework::IObjectCleanup* cleanup, void* context) {
  const MutexLock lock(mutex_);
  if (assigned_ || cleaned_) return kAlreadyExists;
  assigned_ = true;
  context_ = context;
  cleanup_ = framework::ComPtr<framework::IObjectCleanup>(cleanup);
  return framework::kOk;
}

HRESULT ObjectContext::retrieve(void** context) const {
  if (context == nullptr) return framework::kPointer;
  *context = nullptr;
  const MutexLock lock(mutex_);
  if (!assigned_) return kNotFound;
  *context = context_;
  return framework::kOk;
}

void ObjectContext::cleanUp(framework::IWDFObject* object) {
  framework::ComPtr<framework::IObjectCleanup> cleanup;
  {
    const MutexLock lock(mutex_);
    if (cleaned_) return;
    cleaned_ = true;
    cleanup = std::move(cleanup_);
  }
  if (cleanup) cleanup->OnCleanup(object);
}

}  // namespace zelta::host
