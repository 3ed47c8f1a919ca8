// The one reference-count helper: makes a class a component object that answers for a list of
// interfaces, is created with one reference held by its creator and deletes itself with the last.
//
//   class CMyQueue : public framework::ComObject<CMyQueue, IQueueCallbackDeviceIoControl> { ... };
//   CMyQueue* queue = framework::createObject<CMyQueue>(device);   // count is 1, null: no memory
#pragma once

#include <atomic>
#include <new>
#include <utility>

#include "framework/com.h"

namespace zelta::framework {

template <typename Derived, typename First, typename... Rest>
class ComObject : public First, public Rest... {
 public:
  HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(REFIID wanted, void** out) override {
    if (out == nullptr) return kPointer;
    *out = nullptr;
    if (wanted == IUnknown::iid) {
      *out = static_cast<IUnknown*>(static_cast<First*>(this));
    } else {
      find<First, Rest...>(wanted, out);
    }
    if (*out == nullptr) return kNoInterface;
    AddRef();
    return kOk;
  }

  ULONG ZELTA_STDMETHODCALLTYPE AddRef() override {
    return references_.fetch_add(1, std::memory_order_relaxed) + 1;
  }

  ULONG ZELTA_STDMETHODCALLTYPE Release() override {
    const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete static_cast<Derived*>(this);
    return left;
  }

 protected:
  ComObject() = default;
  ~ComObject() = default;
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

 private:
  template <typename Interface, typename... More>
  void find(REFIID wanted, void** out) {
    if (wanted == Interface::iid) {
      *out = static_cast<Interface*>(this);
    } else if constexpr (sizeof...(More) > 0) {
      find<More...>(wanted, out);
    }
  }

  std::atomic<ULONG> references_{1};
};

// The new object with its creator's reference, or null when there is no memory for it or for what
// its constructor needs.
template <typename Object, typename... Arguments>
Object* createObject(Arguments&&... arguments) {
  try {
    return new (std::nothrow) Object(std::forward<Arguments>(arguments)...);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace zelta::framework
