#include "host/wdf_request.h"

#include "host/io_engine.h"

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;
using framework::SIZE_T;
using framework::ULONG;
using platform::MutexLock;

namespace {

template <typename Interface, typename Object>
void give(const ComPtr<Object>& object, Interface** out) {
  if (out != nullptr) *out = ComPtr<Object>(object).detach();
}

}  // namespace

WdfRequest::WdfRequest(SharedDriverErrors errors, std::shared_ptr<IoEngine> engine,
                       std::shared_ptr<Operation> operation, ComPtr<WdfQueue> queue,
                       ComPtr<WdfFile> file, const IoControl& control)
    : WdfObject(std::move(errors)),
      engine_(engine),
      operation_(std::move(operation)),
      queue_(std::move(queue)),
      file_(std::move(file)),
      code_(control.code),
      inLength_(control.input.size()),
      outLength_(control.outputCapacity) {
  if (inLength_ > 0) input_ = makeObject<WdfMemory>(sharedErrors(), control.input);
  if (outLength_ > 0) output_ = makeObject<WdfMemory>(sharedErrors(), outLength_);
}

void WdfRequest::disposeChildren() {
  if (input_) input_->dispose();
  if (output_) output_->dispose();
}

void WdfRequest::CompleteWithInformation(HRESULT status, SIZE_T information) {
  if (!finish(status, information, true)) errors().report("driver completed a request twice");
}

void WdfRequest::SetInformation(framework::ULONG_PTR information) {
  MutexLock lock(mutex_);
  information_ = information;
}

void WdfRequest::Complete(HRESULT status) {
  std::size_t information = 0;
  {
    MutexLock lock(mutex_);
    information = information_;
  }
  CompleteWithInformation(status, information);
}

void WdfRequest::completeByHost(HRESULT status) { finish(status, 0, false); }

bool WdfRequest::finish(HRESULT status, std::size_t information, bool withOutput) {
  ComPtr<WdfRequest> keep;  // the engine's reference; the last thing to go
  ComPtr<framework::IRequestCallbackCancel> callback;
  {
    MutexLock lock(mutex_);
    if (completed_) return false;
    completed_ = true;
    callback = std::move(cancelCallback_);
  }
  IoResult result;
  result.information = information;
  result.status = withoutMemoryErrors([&] {
    if (withOutput && output_) result.output = output_->front(information);
    return status;
  });
  if (const std::shared_ptr<IoEngine> engine = engine_.lock()) keep = engine->retire(*this);
  operation_->finish(std::move(result));
  return true;
}

void WdfRequest::GetDeviceIoControlParameters(ULONG* code, SIZE_T* inLength, SIZE_T* outLength) {
  if (code != nullptr) *code = code_;
  if (inLength != nullptr) *inLength = inLength_;
  if (outLength != nullptr) *outLength = outLength_;
}

void WdfRequest::GetOutputMemory(framework::IWDFMemory** memory) { give(output_, memory); }

void WdfRequest::GetInputMemory(framework::IWDFMemory** memory) { give(input_, memory); }

void WdfRequest::GetFileObject(framework::IWDFFile** file) { give(file_, file); }

void WdfRequest::GetIoQueue(framework::IWDFIoQueue** queue) { give(queue_, queue); }

void WdfRequest::MarkCancelable(framework::IRequestCallbackCancel* callback) {
  switch (mark(callback)) {
    case Marking::kMarked:
      break;
    case Marking::kCancelledBefore:
      callback->OnCancel(this);
      break;
    case Marking::kAgainstTheRules:
      errors().report("driver marked a request cancelable that is completed, marked or cancelled");
      break;
  }
}

WdfRequest::Marking WdfRequest::mark(framework::IRequestCallbackCancel* callback) {
  MutexLock lock(mutex_);
  if (callback == nullptr || completed_ || cancelCallback_ || handedToCallback_) {
    return Marking::kAgainstTheRules;
  }
  if (cancelled_) {
    handedToCallback_ = true;
    return Marking::kCancelledBefore;
  }
  cancelCallback_ = ComPtr<framework::IRequestCallbackCancel>(callback);
  return Marking::kMarked;
}

HRESULT WdfRequest::UnmarkCancelable() {
  ComPtr<framework::IRequestCallbackCancel> callback;
  MutexLock lock(mutex_);
  if (handedToCallback_) return kCancelled;
  if (!cancelCallback_) return kNotFound;
  callback = std::move(cancelCallback_);
  return framework::kOk;
}

void WdfRequest::cancel() {
  ComPtr<framework::IRequestCallbackCancel> callback;
  {
    MutexLock lock(mutex_);
    if (completed_ || cancelled_) return;
    cancelled_ = true;
    if (!cancelCallback_) return;
    handedToCallback_ = true;
    callback = std::move(cancelCallback_);
  }
  callback->OnCancel(this);
}

void WdfRequest::dispatch() {
  queue_->deviceIoControl()->OnDeviceIoControl(queue_.get(), this, code_, inLength_, outLength_);
}

void WdfRequest::SetCompletionCallback(framework::IUnknown*, void*) {
  errors().notImplemented("IWDFIoRequest::SetCompletionCallback");
}

void WdfRequest::GetCreateParameters(ULONG*, std::uint16_t*, std::uint16_t*) {
  errors().notImplemented("IWDFIoRequest::GetCreateParameters");
}

void WdfRequest::GetReadParameters(SIZE_T*, std::int64_t*, ULONG*) {
  errors().notImplemented("IWDFIoRequest::GetReadParameters");
}

void WdfRequest::GetWriteParameters(SIZE_T*, std::int64_t*, ULONG*) {
  errors().notImplemented("IWDFIoRequest::GetWriteParameters");
}

framework::BOOL WdfRequest::CancelSentRequest() {
  errors().notImplemented("IWDFIoRequest::CancelSentRequest");
  return 0;
}

HRESULT WdfRequest::ForwardToIoQueue(framework::IWDFIoQueue*) {
  return errors().notImplemented("IWDFIoRequest::ForwardToIoQueue");
}

HRESULT WdfRequest::Send(void*, ULONG, std::int64_t) {
  return errors().notImplemented("IWDFIoRequest::Send");
}

void WdfRequest::FormatUsingCurrentType() {
  errors().notImplemented("IWDFIoRequest::FormatUsingCurrentType");
}

ULONG WdfRequest::GetRequestorProcessId() {
  errors().notImplemented("IWDFIoRequest::GetRequestorProcessId");
  return 0;
}

HRESULT WdfRequest::Impersonate(framework::EnumValue, framework::IUnknown*, void*) {
  return errors().notImplemented("IWDFIoRequest::Impersonate");
}

framework::BOOL WdfRequest::IsFrom32BitProcess() { return sizeof(void*) == 4; }

void WdfRequest::GetCompletionParams(void** parameters) {
  errors().notImplemented("IWDFIoRequest::GetCompletionParams");
  if (parameters != nullptr) *parameters = nullptr;
}

}  // namespace zelta::host
