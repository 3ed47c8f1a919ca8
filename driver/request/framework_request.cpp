#include "driver/request/framework_request.h"

#include "contract/status.h"
#include "framework/com_object.h"

namespace zelta {

namespace {

using framework::HRESULT;
using framework::IWDFIoRequest;
using framework::IWDFObject;

// The adapter's home. Its first reference is the attachment's, which the cleanup gives back.
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

FrameworkRequest::Attachment FrameworkRequest::attach(IWDFIoRequest& request) noexcept {
  if (IoRequest* const adapter = attached(request)) return {adapter, status::kSuccess};
  auto* context = framework::createObject<RequestContext>(request);
  if (context == nullptr) return {nullptr, status::kOutOfMemory};
  const HRESULT result = request.AssignContext(context, context->adapter());
  if (framework::failed(result)) {
    context->Release();
    return {nullptr, result};
  }
  return {context->adapter(), status::kSuccess};
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

Held<IoMemory> FrameworkRequest::inputMemory() {
  request_->GetInputMemory(input_.reference().put());
  return Held<IoMemory>(input_.reference() ? &input_ : nullptr);
}

Held<IoMemory> FrameworkRequest::outputMemory() {
  request_->GetOutputMemory(output_.reference().put());
  return Held<IoMemory>(output_.reference() ? &output_ : nullptr);
}

Held<IoFile> FrameworkRequest::fileObject() {
  request_->GetFileObject(file_.reference().put());
  return Held<IoFile>(file_.reference() ? &file_ : nullptr);
}

void FrameworkRequest::markCancelable(framework::IRequestCallbackCancel* callback) {
  request_->MarkCancelable(callback);
}

HRESULT FrameworkRequest::unmarkCancelable() { return request_->UnmarkCancelable(); }

void FrameworkRequest::addRef() {
  request_->AddRef();
  if (home_ != nullptr) home_->AddRef();
}

// Either release may destroy this object.
void FrameworkRequest::release() {
  framework::IWDFIoRequest* const request = request_;
  if (home_ != nullptr) home_->Release();
  request->Release();
}

}  // namespace zelta
