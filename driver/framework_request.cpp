#include "driver/framework_request.h"

#include "driver/status.h"
#include "framework/com_object.h"

namespace zelta {

namespace {

using framework::ComPtr;
using framework::HRESULT;
using framework::IWDFFile;
using framework::IWDFIoRequest;
using framework::IWDFMemory;
using framework::IWDFObject;

class FrameworkMemory final : public IoMemory {
 public:
  explicit FrameworkMemory(ComPtr<IWDFMemory> memory) : memory_(std::move(memory)) {}

  void* dataBuffer(std::size_t* size) override { return memory_->GetDataBuffer(size); }
  HRESULT copyFromBuffer(std::size_t offset, const void* source, std::size_t size) override {
    return memory_->CopyFromBuffer(offset, source, size);
  }

 private:
  ComPtr<IWDFMemory> memory_;
};

class FrameworkFile final : public IoFile {
 public:
  explicit FrameworkFile(ComPtr<IWDFFile> file) : file_(std::move(file)) {}

  HRESULT retrieveFileName(wchar_t* buffer, framework::DWORD* capacity) override {
    return file_->RetrieveFileName(buffer, capacity);
  }

 private:
  ComPtr<IWDFFile> file_;
};

// The adapter's home: its first reference is the attachment's, given back by the cleanup.
class RequestContext final
    : public framework::ComObject<RequestContext, framework::IObjectCleanup> {
 public:
  explicit RequestContext(IWDFIoRequest& request) : adapter_(request, this) {}

  void ZELTA_STDMETHODCALLTYPE OnCleanup(IWDFObject* /*object*/) override { Release(); }

  FrameworkRequest* adapter() { return &adapter_; }

 private:
  FrameworkRequest adapter_;
};

}  // namespace

HRESULT FrameworkRequest::attach(IWDFIoRequest& request, IoRequest** adapter) noexcept {
  *adapter = attached(request);
  if (*adapter != nullptr) return status::kSuccess;
  auto* context = framework::createObject<RequestContext>(request);
  if (context == nullptr) return status::kOutOfMemory;
  const HRESULT result = request.AssignContext(context, context->adapter());
  if (framework::failed(result)) {
    context->Release();
    return result;
  }
  *adapter = context->adapter();
  return status::kSuccess;
}

IoRequest* FrameworkRequest::attached(IWDFIoRequest& request) noexcept {
  void* context = nullptr;
  if (framework::failed(request.RetrieveContext(&context))) return nullptr;
  return static_cast<FrameworkRequest*>(context);
}

void FrameworkRequest::completeWithInformation(HRESULT status, std::size_t information) {
  request_->CompleteWithInformation(status, information);
}

void FrameworkRequest::complete(HRESULT status) { request_->Complete(status); }

std::unique_ptr<IoMemory> FrameworkRequest::inputMemory() {
  ComPtr<IWDFMemory> memory;
  request_->GetInputMemory(memory.put());
  if (!memory) return nullptr;
  return std::make_unique<FrameworkMemory>(std::move(memory));
}

std::unique_ptr<IoMemory> FrameworkRequest::outputMemory() {
  ComPtr<IWDFMemory> memory;
  request_->GetOutputMemory(memory.put());
  if (!memory) return nullptr;
  return std::make_unique<FrameworkMemory>(std::move(memory));
}

std::unique_ptr<IoFile> FrameworkRequest::fileObject() {
  ComPtr<IWDFFile> file;
  request_->GetFileObject(file.put());
  if (!file) return nullptr;
  return std::make_unique<FrameworkFile>(std::move(file));
}

void FrameworkRequest::markCancelable(framework::IRequestCallbackCancel* callback) {
  request_->MarkCancelable(callback);
}

HRESULT FrameworkRequest::unmarkCancelable() { return request_->UnmarkCancelable(); }

void FrameworkRequest::addRef() {
  request_->AddRef();
  if (home_ != nullptr) home_->AddRef();
}

// Either release may take this object with it.
void FrameworkRequest::release() {
  framework::IWDFIoRequest* const request = request_;
  if (home_ != nullptr) home_->Release();
  request->Release();
}

}  // namespace zelta
