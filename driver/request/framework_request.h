// The framework's request, seen as the driver's `IoRequest`.
//
// Ownership: there is one adapter per framework request, so that a waiting request is the same
// object to dispatch and to the cancel callback. `attach` makes it and ties it to its request;
// the framework's cleanup callback gives it up, and it is destroyed then or with the last reference
// taken by `addRef`. So the framework may clean up at the completion or with the request's last
// reference. The adapter holds no reference on its request.
//
// Threads: as `IoRequest`. Completing may destroy the adapter before the call returns.
#pragma once

#include "driver/request/io_request.h"

namespace zelta {

// References on the framework's objects, empty while nobody holds them.
class FrameworkMemory final : public IoMemory {
 public:
  framework::ComPtr<framework::IWDFMemory>& reference() { return memory_; }
  void* dataBuffer(std::size_t* size) override { return memory_->GetDataBuffer(size); }
  framework::HRESULT copyFromBuffer(std::size_t offset, const void* source,
                                    std::size_t size) override {
    return memory_->CopyFromBuffer(offset, source, size);
  }
  void release() noexcept override { memory_.reset(); }

 private:
  framework::ComPtr<framework::IWDFMemory> memory_;
};

class FrameworkFile final : public IoFile {
 public:
  framework::ComPtr<framework::IWDFFile>& reference() { return file_; }
  framework::HRESULT retrieveFileName(wchar_t* buffer, framework::DWORD* capacity) override {
    return file_->RetrieveFileName(buffer, capacity);
  }
  void release() noexcept override { file_.reset(); }

 private:
  framework::ComPtr<framework::IWDFFile> file_;
};

class FrameworkRequest final : public IoRequest {
 public:
  // `request` is not owned and outlives this. A caller may make its own adapter to complete a
  // request that could not be attached.
  explicit FrameworkRequest(framework::IWDFIoRequest& request)
      : FrameworkRequest(request, nullptr) {}
  // An adapter that lives in `home`: a reference on the request is one on its home, too.
  FrameworkRequest(framework::IWDFIoRequest& request, framework::IUnknown* home)
      : request_(&request), home_(home) {}

  struct Attachment {
    IoRequest* adapter;         // not owned; null on failure
    framework::HRESULT status;  // why
  };
  // The request's adapter, made if it has none yet. A failure leaves the request untouched.
  [[nodiscard]] static Attachment attach(framework::IWDFIoRequest& request) noexcept;
  // The request's adapter; null if none was attached.
  static IoRequest* attached(framework::IWDFIoRequest& request) noexcept;

  void completeWithInformation(framework::HRESULT status, std::size_t information) override;
  void complete(framework::HRESULT status) override;
  Held<IoMemory> inputMemory() override;
  Held<IoMemory> outputMemory() override;
  Held<IoFile> fileObject() override;
  void markCancelable(framework::IRequestCallbackCancel* callback) override;
  framework::HRESULT unmarkCancelable() override;
  void addRef() override;
  void release() override;

 private:
  framework::IWDFIoRequest* request_;
  framework::IUnknown* home_;  // not owned: it owns this; null if the caller does
  FrameworkMemory input_;
  FrameworkMemory output_;
  FrameworkFile file_;
};

}  // namespace zelta
