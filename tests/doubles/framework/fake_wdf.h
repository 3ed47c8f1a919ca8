// The framework's side of the binary interface, for tests of the driver's objects: reference
// counts, contexts with their cleanup, cancellation and completion by the framework's rules, and
// failures on command. Breaking a rule fails the running test.
//
// Objects count themselves: `livingObjects` is 0 where every reference was released. Any thread may
// use a request; the other objects are set up before they are used.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "framework/wdf.h"

namespace zelta::test {

// How many objects of the doubles are alive.
int livingObjects();

// The interface's operations that every framework object has. Destroys itself with the last
// reference, after its context's cleanup has run.
template <typename Interface>
class WdfObject : public Interface {
 public:
  framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID wanted,
                                                            void** out) override;
  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override;
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE DeleteWdfObject() override { return unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE AssignContext(framework::IObjectCleanup* cleanup,
                                                           void* context) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveContext(void** context) override;
  void ZELTA_STDMETHODCALLTYPE AcquireLock() override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE ReleaseLock() override { unexpected(); }

  framework::ULONG references() const;
  // What `AssignContext` gives; 0 assigns.
  framework::HRESULT assignResult = 0;

 protected:
  WdfObject();
  virtual ~WdfObject();
  // Runs the context's cleanup, if it has one that did not run yet.
  void cleanUp();
  // For operations that the driver has no reason to call.
  static framework::HRESULT unexpected();

 private:
  mutable std::mutex countMutex_;
  framework::ULONG references_ = 1;
  framework::IObjectCleanup* cleanup_ = nullptr;
  void* context_ = nullptr;
};

class FakeWdfMemory;
class FakeWdfFile;

// What became of a request; outlives it.
class Outcome {
 public:
  bool completed() const;
  bool wait() const;  // up to 30 seconds
  std::uint32_t status() const;
  std::optional<std::size_t> information() const;
  std::vector<std::uint8_t> output() const;

 private:
  friend class FakeWdfRequest;
  // Allocates nothing: `output` fits into what was reserved.
  void complete(framework::HRESULT status, std::optional<std::size_t> information,
                const FakeWdfMemory* output);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool completed_ = false;
  std::uint32_t status_ = 0;
  std::optional<std::size_t> information_;
  std::vector<std::uint8_t> output_;
};

struct RequestSetup {
  std::optional<std::vector<std::uint8_t>> input;
  std::optional<std::size_t> outputCapacity;
  std::optional<std::wstring> fileName = L"\\dev0";
  framework::HRESULT fileNameResult = 0;
  framework::HRESULT assignResult = 0;
  // The context's cleanup runs at the completion, not with the last reference: a framework may.
  bool cleanUpAtCompletion = false;
  // Run on the completing thread, before anything else of the completion.
  std::function<void()> onComplete;
};

class FakeWdfRequest final : public WdfObject<framework::IWDFIoRequest> {
 public:
  // Starts with the framework's reference, given up by the completion.
  explicit FakeWdfRequest(const RequestSetup& setup);

  std::shared_ptr<Outcome> outcome() const { return outcome_; }
  // Hands the request to its cancel callback where it waits, marked; as soon as it is marked where
  // it is not yet. The caller holds a reference.
  void cancel();
  bool markedCancelable() const;
  // From now on its file has another name, or none that can be read.
  void rename(std::wstring fileName, framework::HRESULT result = 0);

  void ZELTA_STDMETHODCALLTYPE CompleteWithInformation(framework::HRESULT status,
                                                       framework::SIZE_T information) override;
  void ZELTA_STDMETHODCALLTYPE SetInformation(framework::ULONG_PTR) override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE Complete(framework::HRESULT status) override;
  void ZELTA_STDMETHODCALLTYPE SetCompletionCallback(framework::IUnknown*, void*) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetType() override { return unexpected(); }
  void ZELTA_STDMETHODCALLTYPE GetCreateParameters(framework::ULONG*, std::uint16_t*,
                                                   std::uint16_t*) override;
  void ZELTA_STDMETHODCALLTYPE GetReadParameters(framework::SIZE_T*, std::int64_t*,
                                                 framework::ULONG*) override;
  void ZELTA_STDMETHODCALLTYPE GetWriteParameters(framework::SIZE_T*, std::int64_t*,
                                                  framework::ULONG*) override;
  void ZELTA_STDMETHODCALLTYPE GetDeviceIoControlParameters(framework::ULONG*, framework::SIZE_T*,
                                                            framework::SIZE_T*) override;
  void ZELTA_STDMETHODCALLTYPE GetOutputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetInputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE MarkCancelable(framework::IRequestCallbackCancel* callback) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE UnmarkCancelable() override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE CancelSentRequest() override { return unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ForwardToIoQueue(framework::IWDFIoQueue*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE Send(void*, framework::ULONG, std::int64_t) override;
  void ZELTA_STDMETHODCALLTYPE GetFileObject(framework::IWDFFile** file) override;
  void ZELTA_STDMETHODCALLTYPE FormatUsingCurrentType() override { unexpected(); }
  framework::ULONG ZELTA_STDMETHODCALLTYPE GetRequestorProcessId() override;
  void ZELTA_STDMETHODCALLTYPE GetIoQueue(framework::IWDFIoQueue**) override { unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE Impersonate(framework::EnumValue, framework::IUnknown*,
                                                         void*) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE IsFrom32BitProcess() override { return unexpected(); }
  void ZELTA_STDMETHODCALLTYPE GetCompletionParams(void**) override { unexpected(); }

 private:
  ~FakeWdfRequest() override;
  void finish(framework::HRESULT status, std::optional<std::size_t> information);
  void touch(const char* operation) const;  // with the mutex held
  void runCancelCallback(framework::ComPtr<framework::IRequestCallbackCancel> callback);

  const std::shared_ptr<Outcome> outcome_ = std::make_shared<Outcome>();
  const std::function<void()> onComplete_;
  const bool cleanUpAtCompletion_;
  FakeWdfMemory* input_ = nullptr;  // each with this request's own reference
  FakeWdfMemory* output_ = nullptr;
  FakeWdfFile* file_ = nullptr;
  mutable std::mutex mutex_;
  framework::ComPtr<framework::IRequestCallbackCancel> callback_;
  bool cancelled_ = false;
  bool completed_ = false;
};

class FakeWdfMemory final : public WdfObject<framework::IWDFMemory> {
 public:
  explicit FakeWdfMemory(std::vector<std::uint8_t> content) : bytes(std::move(content)) {}

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromMemory(framework::IWDFMemory*, void*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyToBuffer(framework::ULONG_PTR, void*,
                                                          framework::SIZE_T) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromBuffer(framework::ULONG_PTR offset,
                                                            const void* source,
                                                            framework::SIZE_T size) override;
  framework::SIZE_T ZELTA_STDMETHODCALLTYPE GetSize() override { return bytes.size(); }
  void* ZELTA_STDMETHODCALLTYPE GetDataBuffer(framework::SIZE_T* size) override;
  void ZELTA_STDMETHODCALLTYPE SetBuffer(void*, framework::SIZE_T) override { unexpected(); }

  std::vector<std::uint8_t> bytes;

 private:
  ~FakeWdfMemory() override = default;
};

class FakeWdfFile final : public WdfObject<framework::IWDFFile> {
 public:
  FakeWdfFile(std::wstring name, framework::HRESULT result)
      : name_(std::move(name)), result_(result) {}

  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveFileName(wchar_t* name,
                                                              framework::DWORD* length) override;
  void ZELTA_STDMETHODCALLTYPE GetDevice(framework::IWDFDevice**) override { unexpected(); }

 private:
  ~FakeWdfFile() override = default;

  const std::wstring name_;
  const framework::HRESULT result_;
};

}  // namespace zelta::test
