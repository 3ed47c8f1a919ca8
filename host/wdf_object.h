// The base of every framework object of the host: references, the driver's context with
// its cleanup callback, deletion in the framework's sense.
//
// Lifetime: an object is created with one reference held by its creator. It is deleted, in the
// framework's sense, when its parent is (`dispose`) or when its last reference is released,
// whichever comes first; the driver's cleanup callback runs then, once, on that thread, and can
// still use
// the object and its context. The memory is freed with the last reference.
// Threads: any.
#pragma once

#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include "framework/wdf.h"
#include "host/driver_errors.h"
#include "platform/sync/sync.h"

namespace zelta::host {

// The context that a driver attaches to one object.
class ObjectContext {
 public:
  // Succeeds once per object, before its cleanup. The callback is held until the cleanup is done.
  [[nodiscard]] framework::HRESULT assign(framework::IObjectCleanup* cleanup, void* context)
      ZELTA_EXCLUDES(mutex_);
  [[nodiscard]] framework::HRESULT retrieve(void** context) const ZELTA_EXCLUDES(mutex_);
  // Runs the callback. Does nothing the second time.
  void cleanUp(framework::IWDFObject* object) ZELTA_EXCLUDES(mutex_);

 private:
  mutable platform::Mutex mutex_;
  framework::ComPtr<framework::IObjectCleanup> cleanup_ ZELTA_GUARDED_BY(mutex_);
  void* context_ ZELTA_GUARDED_BY(mutex_) = nullptr;
  bool assigned_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cleaned_ ZELTA_GUARDED_BY(mutex_) = false;
};

template <typename Derived, typename Interface>
class WdfObject : public Interface {
 public:
  WdfObject(const WdfObject&) = delete;
  WdfObject& operator=(const WdfObject&) = delete;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID wanted,
                                                            void** out) override {
    if (out == nullptr) return framework::kPointer;
    *out = nullptr;
    if (wanted == framework::IUnknown::iid) {
      *out = static_cast<framework::IUnknown*>(this);
    } else if (wanted == framework::IWDFObject::iid) {
      *out = static_cast<framework::IWDFObject*>(this);
    } else if (wanted == Interface::iid) {
      *out = static_cast<Interface*>(this);
    }
    if (*out == nullptr) return framework::kNoInterface;
    AddRef();
    return framework::kOk;
  }

  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override {
    return references_.fetch_add(1, std::memory_order_relaxed) + 1;
  }

  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override {
    const framework::ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left != 0) return left;
    // The object lives through its own cleanup, in which the driver may reference it.
    references_.store(1, std::memory_order_relaxed);
    dispose();
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      std::unique_ptr<Derived> last(static_cast<Derived*>(this));
    }
    return 0;
  }

  framework::HRESULT ZELTA_STDMETHODCALLTYPE DeleteWdfObject() override {
    return errors_->notImplemented("IWDFObject::DeleteWdfObject");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE AssignContext(framework::IObjectCleanup* cleanup,
                                                           void* context) override {
    return context_.assign(cleanup, context);
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveContext(void** context) override {
    return context_.retrieve(context);
  }
  void ZELTA_STDMETHODCALLTYPE AcquireLock() override {
    errors_->notImplemented("IWDFObject::AcquireLock");
  }
  void ZELTA_STDMETHODCALLTYPE ReleaseLock() override {
    errors_->notImplemented("IWDFObject::ReleaseLock");
  }

  // Deletes the object in the framework's sense: its children, then itself. Harmless twice.
  void dispose() {
    static_cast<Derived*>(this)->disposeChildren();
    context_.cleanUp(this);
  }

 protected:
  explicit WdfObject(SharedDriverErrors errors) : errors_(std::move(errors)) {}
  ~WdfObject() = default;

  // Hidden by classes whose objects have children.
  void disposeChildren() {}

  const DriverErrors& errors() const { return *errors_; }
  const SharedDriverErrors& sharedErrors() const { return errors_; }

 private:
  SharedDriverErrors errors_;
  ObjectContext context_;
  std::atomic<framework::ULONG> references_{1};
};

// The new object, with its creator's reference. Throws std::bad_alloc.
template <typename Object, typename... Arguments>
framework::ComPtr<Object> makeObject(Arguments&&... arguments) {
  return framework::ComPtr<Object>::adopt(
      std::make_unique<Object>(std::forward<Arguments>(arguments)...).release());
}

// For an operation that the driver calls: turns lack of memory into a status.
template <typename Operation>
framework::HRESULT withoutMemoryErrors(Operation operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return kOutOfMemory;
  }
}

// A child's link to its parent, cut when the parent is deleted.
template <typename Parent>
class ParentLink {
 public:
  explicit ParentLink(Parent* parent) : parent_(parent) {}

  // A new reference, or null.
  framework::ComPtr<Parent> get() const ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    return framework::ComPtr<Parent>(parent_);
  }
  // Called by the parent, while it lives.
  void cut() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    parent_ = nullptr;
  }

 private:
  mutable platform::Mutex mutex_;
  Parent* parent_ ZELTA_GUARDED_BY(mutex_);  // not owned
};

}  // namespace zelta::host
