// The base of the recording framework's objects: counts references and tells of every call that
// the framework's rules forbid.
//
// An object begins with the framework's own reference. With the last reference it is deleted in
// the framework's sense: the context's cleanup callback runs, once. The memory stays until the
// recording framework goes, so that a call after the deletion is recorded and does not crash.
// Threads: any.
#pragma once

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "framework/wdf.h"
#include "platform/sync/sync.h"

namespace zelta::test {

// What was done against the rules.
class Violations {
 public:
  void add(const std::string& text) {
    platform::MutexLock lock(mutex_);
    texts_.push_back(text);
  }
  std::vector<std::string> all() const {
    platform::MutexLock lock(mutex_);
    return texts_;
  }

 private:
  mutable platform::Mutex mutex_;
  std::vector<std::string> texts_ ZELTA_GUARDED_BY(mutex_);
};

template <typename Derived, typename Interface>
class RecordingObject : public Interface {
 public:
  RecordingObject(const RecordingObject&) = delete;
  RecordingObject& operator=(const RecordingObject&) = delete;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID wanted,
                                                            void** out) override {
    touch("QueryInterface");
    *out = nullptr;
    if (wanted != framework::IUnknown::iid && wanted != framework::IWDFObject::iid &&
        wanted != Interface::iid) {
      return framework::kNoInterface;
    }
    *out = static_cast<Interface*>(this);
    ++references_;
    return framework::kOk;
  }
  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override {
    touch("AddRef");
    return static_cast<framework::ULONG>(++references_);
  }
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override {
    const int left = --references_;
    if (left < 0 || (left == 0 && !ownReferenceGone_)) violation("was released too often");
    if (left == 0) remove();
    return static_cast<framework::ULONG>(left);
  }

  framework::HRESULT ZELTA_STDMETHODCALLTYPE DeleteWdfObject() override {
    return unexpected("DeleteWdfObject");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE AssignContext(framework::IObjectCleanup* cleanup,
                                                           void* context) override {
    touch("AssignContext");
    if (assigned_.exchange(true)) return framework::hresult(0x800700B7);
    cleanup_ = framework::ComPtr<framework::IObjectCleanup>(cleanup);
    context_ = context;
    return framework::kOk;
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveContext(void** context) override {
    if (!cleaning_) touch("RetrieveContext");
    *context = context_;
    return assigned_ ? framework::kOk : framework::hresult(0x80070490);
  }
  void ZELTA_STDMETHODCALLTYPE AcquireLock() override { unexpected("AcquireLock"); }
  void ZELTA_STDMETHODCALLTYPE ReleaseLock() override { unexpected("ReleaseLock"); }

  // A new reference for the driver; what a getter gives.
  Interface* reference() {
    ++references_;
    return this;
  }
  // Drops the framework's own reference; the driver may still have some.
  void giveUp() {
    ownReferenceGone_ = true;
    Release();
  }
  // References that are the driver's.
  int driversReferences() const { return references_ - (ownReferenceGone_ ? 0 : 1); }
  bool removed() const { return removed_; }
  // Cleanup callbacks that ran.
  int cleanups() const { return cleanups_; }
  bool hasContext() const { return assigned_; }

 protected:
  RecordingObject(const char* name, Violations& violations)
      : name_(name), violations_(violations) {}
  ~RecordingObject() = default;

  // Each operation begins with it.
  void touch(const char* operation) {
    if (removed_) violation(std::string("was deleted, and then ") + operation + " called");
    static_cast<Derived*>(this)->checkTouch(operation);
  }
  framework::HRESULT unexpected(const char* operation) {
    violation(std::string("does not expect ") + operation);
    return framework::hresult(0x80004001);
  }
  void violation(const std::string& what) { violations_.add(std::string(name_) + " " + what); }
  // Hidden by classes with rules of their own.
  void checkTouch(const char*) {}

  Violations& violations() { return violations_; }

 private:
  void remove() {
    if (removed_.exchange(true)) return;
    if (!cleanup_) return;
    cleaning_ = true;
    cleanup_->OnCleanup(this);
    cleaning_ = false;
    ++cleanups_;
    cleanup_.reset();
  }

  const char* const name_;
  Violations& violations_;
  std::atomic<int> references_{1};
  std::atomic<bool> ownReferenceGone_{false};
  std::atomic<bool> removed_{false};
  std::atomic<bool> cleaning_{false};
  std::atomic<bool> assigned_{false};
  std::atomic<int> cleanups_{0};
  framework::ComPtr<framework::IObjectCleanup> cleanup_;  // until it has run
  void* context_ = nullptr;
};

}  // namespace zelta::test
