// The framework's request with its memory and its file: notes how and how often the request was
// completed, and passes it to its cancel callback by the framework's rules.
//
// Owned by the `FakeFramework`. No reference is held through the dispatch, so that a completion may
// delete the request before `CompleteWithInformation` returns, which is the least that the rules
// allow a driver to rely on. A buffer has exactly its length, so that memory checkers see a read
// beyond it. Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "contract/bytes.h"
#include "tests/doubles/framework/fake_wdf_object.h"

namespace zelta::test {

// What a request has; the driver gets null for what is missing.
struct RequestSetup {
  std::uint32_t code = 0;
  std::optional<Bytes> input;
  std::optional<std::size_t> outputCapacity;  // bytes
  std::optional<std::wstring> fileName = L"\\dev0";
  framework::HRESULT fileNameResult = 0;
  framework::HRESULT assignResult = 0;
  // The context's cleanup runs at the completion, not with the last reference: a framework may.
  bool cleanUpAtCompletion = false;
  // Runs when the driver asks for the output memory.
  std::function<void()> onOutput = nullptr;
  // Runs on the completing thread before anything else of the completion.
  std::function<void()> onComplete = nullptr;
};

class FakeWdfMemory final : public FakeWdfObject<framework::IWDFMemory> {
 public:
  FakeWdfMemory(Violations& noted, Bytes content)
      : FakeWdfObject("memory", noted), bytes(std::move(content)) {}

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromBuffer(framework::ULONG_PTR offset,
                                                            const void* source,
                                                            framework::SIZE_T size) override;
  framework::SIZE_T ZELTA_STDMETHODCALLTYPE GetSize() override;
  void* ZELTA_STDMETHODCALLTYPE GetDataBuffer(framework::SIZE_T* size) override;
  ZELTA_UNEXPECTED(framework::HRESULT, CopyFromMemory, framework::IWDFMemory*, void*)
  ZELTA_UNEXPECTED(framework::HRESULT, CopyToBuffer, framework::ULONG_PTR, void*, framework::SIZE_T)
  ZELTA_UNEXPECTED(void, SetBuffer, void*, framework::SIZE_T)

  using FakeWdfObject::expire;

  Bytes bytes;
  std::atomic<bool> written{false};
};

class FakeWdfFile final : public FakeWdfObject<framework::IWDFFile> {
 public:
  explicit FakeWdfFile(Violations& noted) : FakeWdfObject("file", noted) {}

  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveFileName(wchar_t* name,
                                                              framework::DWORD* length) override;
  ZELTA_UNEXPECTED(void, GetDevice, framework::IWDFDevice**)

  std::wstring name;
  framework::HRESULT result = 0;
};

class FakeWdfRequest final : public FakeWdfObject<framework::IWDFIoRequest> {
 public:
  FakeWdfRequest(Violations& noted, const RequestSetup& setup);

  // Hands the request to its cancel callback, now or as soon as it is marked cancelable.
  void cancel() ZELTA_EXCLUDES(mutex_);
  // Replaces the buffers. Call before the request is handed over.
  void setInput(Bytes bytes) { input_.emplace(violations, std::move(bytes)); }
  void setOutput(Bytes bytes) { output_.emplace(violations, std::move(bytes)); }
  // Gives its file another name, or one that cannot be read.
  void rename(std::wstring fileName, framework::HRESULT result = 0);

  std::uint32_t code() const { return setup_.code; }
  std::size_t inputSize() const { return input_ ? input_->bytes.size() : 0; }
  std::size_t outputSize() const { return output_ ? output_->bytes.size() : 0; }

  int completions() const ZELTA_EXCLUDES(mutex_);
  bool completed() const { return completions() > 0; }
  // Waits also until the driver has released its references on the request.
  bool waitCompleted(std::chrono::milliseconds limit = std::chrono::seconds(60)) const
      ZELTA_EXCLUDES(mutex_);
  bool waitMarked(std::chrono::milliseconds limit) const ZELTA_EXCLUDES(mutex_);
  // From the first completion; a failure of the test before it.
  framework::HRESULT status() const ZELTA_EXCLUDES(mutex_);
  std::optional<std::size_t> information() const ZELTA_EXCLUDES(mutex_);
  // The whole output buffer.
  const Bytes& output() const { return output_->bytes; }
  bool outputWritten() const { return output_ && output_->written; }
  bool markedCancelable() const ZELTA_EXCLUDES(mutex_);
  int cancelCallbacks() const ZELTA_EXCLUDES(mutex_);
  // On the request, its memory and its file.
  int driversReferencesInAll() const;

  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override {
    const platform::MutexLock lock(mutex_);
    changed_.notifyAll();
    return FakeWdfObject::Release();
  }
  void ZELTA_STDMETHODCALLTYPE CompleteWithInformation(framework::HRESULT status,
                                                       framework::SIZE_T information) override {
    complete("CompleteWithInformation", status, information);
  }
  void ZELTA_STDMETHODCALLTYPE Complete(framework::HRESULT status) override {
    complete("Complete", status, std::nullopt);
  }
  void ZELTA_STDMETHODCALLTYPE GetOutputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetInputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetFileObject(framework::IWDFFile** file) override;
  void ZELTA_STDMETHODCALLTYPE MarkCancelable(framework::IRequestCallbackCancel* callback) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE UnmarkCancelable() override;

  using Number16 = std::uint16_t;
  using Number64 = std::int64_t;
  using SIZE_T = framework::SIZE_T;
  using ULONG = framework::ULONG;
  ZELTA_UNEXPECTED(void, SetInformation, framework::ULONG_PTR)
  ZELTA_UNEXPECTED(void, SetCompletionCallback, framework::IUnknown*, void*)
  ZELTA_UNEXPECTED(framework::EnumValue, GetType)
  ZELTA_UNEXPECTED(void, GetCreateParameters, ULONG*, Number16*, Number16*)
  ZELTA_UNEXPECTED(void, GetReadParameters, SIZE_T*, Number64*, ULONG*)
  ZELTA_UNEXPECTED(void, GetWriteParameters, SIZE_T*, Number64*, ULONG*)
  ZELTA_UNEXPECTED(void, GetDeviceIoControlParameters, ULONG*, SIZE_T*, SIZE_T*)
  ZELTA_UNEXPECTED(framework::BOOL, CancelSentRequest)
  ZELTA_UNEXPECTED(framework::HRESULT, ForwardToIoQueue, framework::IWDFIoQueue*)
  ZELTA_UNEXPECTED(framework::HRESULT, Send, void*, ULONG, Number64)
  ZELTA_UNEXPECTED(void, FormatUsingCurrentType)
  ZELTA_UNEXPECTED(ULONG, GetRequestorProcessId)
  ZELTA_UNEXPECTED(void, GetIoQueue, framework::IWDFIoQueue**)
  ZELTA_UNEXPECTED(framework::HRESULT, Impersonate, framework::EnumValue, framework::IUnknown*,
                   void*)
  ZELTA_UNEXPECTED(framework::BOOL, IsFrom32BitProcess)
  ZELTA_UNEXPECTED(void, GetCompletionParams, void**)

 private:
  void complete(const char* operation, framework::HRESULT status,
                std::optional<std::size_t> information) ZELTA_EXCLUDES(mutex_);

  const RequestSetup setup_;
  std::optional<FakeWdfMemory> input_;
  std::optional<FakeWdfMemory> output_;
  std::optional<FakeWdfFile> file_;

  mutable platform::Mutex mutex_;
  mutable platform::ConditionVariable changed_;
  int completions_ ZELTA_GUARDED_BY(mutex_) = 0;
  int cancelCallbacks_ ZELTA_GUARDED_BY(mutex_) = 0;
  framework::HRESULT status_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::optional<std::size_t> information_ ZELTA_GUARDED_BY(mutex_);
  bool done_ ZELTA_GUARDED_BY(mutex_) = false;    // the completion is over
  bool marked_ ZELTA_GUARDED_BY(mutex_) = false;  // once
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
  framework::ComPtr<framework::IRequestCallbackCancel> callback_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
