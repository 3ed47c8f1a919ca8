// A request, its file and its memory, for tests: record how often and with what the request was
// completed, and every call that must not come.
//
// Owned by the recording framework (recording_framework.h). No reference is held through the
// dispatch, so completion may delete the request before `CompleteWithInformation` returns, which
// is the least that the framework's rules allow a driver to rely on. A buffer has exactly its
// length, so that memory checkers see a read behind it.
// Threads: any.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/doubles/framework/recording_object.h"

namespace zelta::test {

// What the request has; a missing part is given to the driver as null.
struct RequestParts {
  std::uint32_t code = 0;
  std::optional<std::vector<std::uint8_t>> input;
  std::optional<std::size_t> outputCapacity;  // bytes
  std::optional<std::wstring> fileName = L"\\dev0";
};

class RecordingMemory final : public RecordingObject<RecordingMemory, framework::IWDFMemory> {
 public:
  RecordingMemory(Violations& violations, std::vector<std::uint8_t> bytes)
      : RecordingObject("memory", violations), bytes_(std::move(bytes)) {}

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromMemory(framework::IWDFMemory*,
                                                            void*) override {
    return unexpected("CopyFromMemory");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyToBuffer(framework::ULONG_PTR, void*,
                                                          framework::SIZE_T) override {
    return unexpected("CopyToBuffer");
  }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromBuffer(framework::ULONG_PTR offset,
                                                            const void* source,
                                                            framework::SIZE_T size) override;
  framework::SIZE_T ZELTA_STDMETHODCALLTYPE GetSize() override;
  void* ZELTA_STDMETHODCALLTYPE GetDataBuffer(framework::SIZE_T* size) override;
  void ZELTA_STDMETHODCALLTYPE SetBuffer(void*, framework::SIZE_T) override {
    unexpected("SetBuffer");
  }

  // From now on every use is a violation: the request is completed.
  void expire() { expired_ = true; }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  friend class RecordingObject<RecordingMemory, framework::IWDFMemory>;
  void checkTouch(const char* operation);

  std::atomic<bool> expired_{false};
  std::vector<std::uint8_t> bytes_;
};

class RecordingFile final : public RecordingObject<RecordingFile, framework::IWDFFile> {
 public:
  RecordingFile(Violations& violations, std::wstring name)
      : RecordingObject("file", violations), name_(std::move(name)) {}

  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveFileName(wchar_t* name, framework::DWORD* lengthInCharacters) override;
  void ZELTA_STDMETHODCALLTYPE GetDevice(framework::IWDFDevice** device) override {
    *device = nullptr;
    unexpected("GetDevice");
  }

 private:
  const std::wstring name_;
};

class RecordingRequest final : public RecordingObject<RecordingRequest, framework::IWDFIoRequest> {
 public:
  RecordingRequest(Violations& violations, const RequestParts& parts);

  void ZELTA_STDMETHODCALLTYPE CompleteWithInformation(framework::HRESULT status,
                                                       framework::SIZE_T information) override;
  void ZELTA_STDMETHODCALLTYPE Complete(framework::HRESULT status) override;
  void ZELTA_STDMETHODCALLTYPE GetOutputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetInputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetFileObject(framework::IWDFFile** file) override;
  void ZELTA_STDMETHODCALLTYPE MarkCancelable(framework::IRequestCallbackCancel* callback) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE UnmarkCancelable() override;

  // Operations that the driver has no use for.
  void ZELTA_STDMETHODCALLTYPE SetInformation(framework::ULONG_PTR) override;
  void ZELTA_STDMETHODCALLTYPE SetCompletionCallback(framework::IUnknown*, void*) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetType() override;
  void ZELTA_STDMETHODCALLTYPE GetCreateParameters(framework::ULONG*, std::uint16_t*,
                                                   std::uint16_t*) override;
  void ZELTA_STDMETHODCALLTYPE GetReadParameters(framework::SIZE_T*, std::int64_t*,
                                                 framework::ULONG*) override;
  void ZELTA_STDMETHODCALLTYPE GetWriteParameters(framework::SIZE_T*, std::int64_t*,
                                                  framework::ULONG*) override;
  void ZELTA_STDMETHODCALLTYPE GetDeviceIoControlParameters(framework::ULONG*, framework::SIZE_T*,
                                                            framework::SIZE_T*) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE CancelSentRequest() override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ForwardToIoQueue(framework::IWDFIoQueue*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE Send(void*, framework::ULONG, std::int64_t) override;
  void ZELTA_STDMETHODCALLTYPE FormatUsingCurrentType() override;
  framework::ULONG ZELTA_STDMETHODCALLTYPE GetRequestorProcessId() override;
  void ZELTA_STDMETHODCALLTYPE GetIoQueue(framework::IWDFIoQueue** queue) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE Impersonate(framework::EnumValue, framework::IUnknown*,
                                                         void*) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE IsFrom32BitProcess() override;
  void ZELTA_STDMETHODCALLTYPE GetCompletionParams(void** parameters) override;

  // Hands the request to its cancel callback, now or when it is marked.
  void cancel() ZELTA_EXCLUDES(mutex_);
  bool waitCompleted(std::chrono::milliseconds limit) ZELTA_EXCLUDES(mutex_);

  const RequestParts& parts() const { return parts_; }
  int completions() const { return completions_; }
  int cancelCallbacks() const { return cancelCallbacks_; }
  // Only after completion; those of the first one.
  framework::HRESULT status() const { return status_; }
  std::size_t information() const { return information_; }
  const std::vector<std::uint8_t>& output() const { return output_->bytes(); }
  // References on the request, its memory and its file that the driver has not given back.
  int driversReferencesInAll() const;

 private:
  friend class RecordingObject<RecordingRequest, framework::IWDFIoRequest>;
  void checkTouch(const char* operation);
  void complete(const char* operation, framework::HRESULT status, std::size_t information);
  void callBack(framework::IRequestCallbackCancel& callback);

  const RequestParts parts_;
  const std::unique_ptr<RecordingMemory> input_;
  const std::unique_ptr<RecordingMemory> output_;
  const std::unique_ptr<RecordingFile> file_;
  std::atomic<int> completions_{0};
  std::atomic<int> cancelCallbacks_{0};
  framework::HRESULT status_ = 0;
  std::size_t information_ = 0;

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool done_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
  bool handedOver_ ZELTA_GUARDED_BY(mutex_) = false;
  framework::ComPtr<framework::IRequestCallbackCancel> callback_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
