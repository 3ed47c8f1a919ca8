// The base of the framework's doubles: counts references, keeps a context, and notes every call
// that the framework's rules forbid.
//
// An object begins with the framework's own reference. With the last reference it is deleted in the
// framework's sense: the context's cleanup callback runs, once. The memory stays until the
// `FakeFramework` is destroyed, so that a call after the deletion is noted and does not crash. Any
// thread.
#pragma once

#include <atomic>
#include <string>

#include "framework/wdf.h"
#include "tests/support/collected.h"

// An operation that the driver has no reason to call.
#define ZELTA_UNEXPECTED(Result, operation, ...)                          \
  Result ZELTA_STDMETHODCALLTYPE operation(__VA_ARGS__) override {        \
    return zelta::test::unexpected<Result>(this->violations, #operation); \
  }

namespace zelta::test {

// Violations of the framework's rules.
using Violations = Collected<std::string>;

template <typename Result>
Result unexpected(Violations& violations, const char* operation) {
  violations.add(std::string("unexpected ") + operation);
  return static_cast<Result>(0x80004001u);  // E_NOTIMPL
}

template <typename Interface>
class FakeWdfObject : public Interface {
 public:
  FakeWdfObject(const FakeWdfObject&) = delete;
  FakeWdfObject& operator=(const FakeWdfObject&) = delete;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID wanted,
                                                            void** out) override {
    touch("QueryInterface");
    *out = nullptr;
    if (wanted != framework::IUnknown::iid && wanted != framework::IWDFObject::iid &&
        wanted != Interface::iid) {
      return framework::kNoInterface;
    }
    *out = reference();
    return framework::kOk;
  }
  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override {
    touch("AddRef");
    return static_cast<framework::ULONG>(++references_);
  }
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override {
    const int left = --references_;
    if (left < 0 || (left == 0 && !givenUp_)) violation("was released too often");
    if (left == 0 && !removed_.exchange(true)) cleanUp();
    return static_cast<framework::ULONG>(left);
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE AssignContext(framework::IObjectCleanup* cleanup,
                                                           void* context) override {
    touch("AssignContext");
    if (framework::failed(assignResult)) return assignResult;
    if (assigned_.exchange(true)) return framework::hresult(0x800700B7);  // ERROR_ALREADY_EXISTS
    cleanup_ = framework::ComPtr<framework::IObjectCleanup>(cleanup);
    context_ = context;
    return framework::kOk;
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveContext(void** context) override {
    touch("RetrieveContext");
    *context = context_;
    return assigned_ ? framework::kOk : framework::hresult(0x80070490);  // ERROR_NOT_FOUND
  }
  ZELTA_UNEXPECTED(framework::HRESULT, DeleteWdfObject)
  ZELTA_UNEXPECTED(void, AcquireLock)
  ZELTA_UNEXPECTED(void, ReleaseLock)

  // A new reference for the driver, as a getter gives it.
  Interface* reference() {
    ++references_;
    return this;
  }
  // Drops the framework's own reference; the driver may still have some.
  void giveUp() {
    if (!givenUp_.exchange(true)) Release();
  }
  bool givenUp() const { return givenUp_; }
  int driversReferences() const { return references_ - (givenUp_ ? 0 : 1); }
  bool hasContext() const { return assigned_; }
  // Cleanup callbacks that ran.
  int cleanups() const { return cleanups_; }

  // The result of `AssignContext`; success assigns.
  framework::HRESULT assignResult = 0;
  Violations& violations;

 protected:
  FakeWdfObject(const char* name, Violations& noted) : violations(noted), name_(name) {}
  ~FakeWdfObject() = default;

  // Called first by every operation.
  void touch(const char* operation) {
    if (removed_) violation(std::string("was deleted, and then ") + operation + " called");
    if (expired_) violation(std::string(operation) + " was called after the request's completion");
  }
  // After this call, any use is a violation.
  void expire() { expired_ = true; }
  void violation(const std::string& what) { violations.add(std::string(name_) + " " + what); }

  // Runs the context's cleanup, once.
  void cleanUp() {
    framework::ComPtr<framework::IObjectCleanup> cleanup = std::move(cleanup_);
    if (!cleanup) return;
    cleanup->OnCleanup(this);
    ++cleanups_;
    if (cleanup.detach()->Release() != 0 && removed_) {
      violation("has a context that outlives its cleanup");
    }
  }

 private:
  const char* const name_;
  std::atomic<int> references_{1};
  std::atomic<bool> givenUp_{false};
  std::atomic<bool> removed_{false};
  std::atomic<bool> expired_{false};
  std::atomic<bool> assigned_{false};
  std::atomic<int> cleanups_{0};
  framework::ComPtr<framework::IObjectCleanup> cleanup_;  // until it has run
  void* context_ = nullptr;
};

}  // namespace zelta::test
