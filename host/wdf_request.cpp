#include "host/wdf_request.h"

#include <stdexcept>

#include "host/io_engine.h"
#include "platform/process/uninitialized.h"

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;
using framework::SIZE_T;
using framework::ULONG;
using platform::MutexLock;

namespace {

template <typename Interface, typename Object>
void give(Object* object, Interface** out) {
  if (out != nullptr) *out = ComPtr<Object>(object).detach();
}

std::size_t sum(std::size_t first, std::size_t second) {
  if (second > SIZE_MAX - first) throw std::length_error("buffers too large");
  return first + second;
}

}  // namespace

WdfRequest::WdfRequest(SharedDriverErrors errors, IoEngine& engine, ComPtr<WdfQueue> queue,
                       ComPtr<WdfFile> file, const IoControl& control,
                       std::shared_ptr<Operation> operation)
    : WdfObject(std::move(errors)),
      engine_(engine),
      queue_(std::move(queue)),
      file_(std::move(file)),
      operation_(std::move(operation)),
      code_(control.code),
      input_(this->errors(), *this),
      output_(this->errors(), *this) {
  const std::size_t inputSize = sum(control.input.header.size, control.input.body.size);
  const std::size_t inputStorage = WdfMemory::storageFor(inputSize);
  const std::size_t outputStorage = WdfMemory::storageFor(control.outputCapacity);
  storage_ = platform::makeUninitialized(sum(inputStorage, outputStorage));
  input_.setStorage(storage_.get(), inputSize);
  input_.fill(control.input.header, control.input.body);
  output_.setStorage(storage_.get() + inputStorage, control.outputCapacity);
}

void WdfRequest::disposeChildren() {
  input_.dispose();
  output_.dispose();
}

void WdfRequest::CompleteWithInformation(HRESULT status, SIZE_T information) {
  if (!finish(status, information, true)) errors().report("driver completed a request twice");
}

void WdfRequest::SetInformation(framework::ULONG_PTR information) {
  const MutexLock lock(mutex_);
  information_ = information;
}

void WdfRequest::Complete(HRESULT status) {
  std::size_t information = 0;
  {
    const MutexLock lock(mutex_);
    information = information_;
  }
  CompleteWithInformation(status, information);
}

void WdfRequest::completeByHost(HRESULT status) { finish(status, 0, false); }

bool WdfRequest::finish(HRESULT status, std::size_t information, bool withOutput) {
  // A waiter may release the request as soon as it is completed.
  const ComPtr<WdfRequest> self(this);
  ComPtr<WdfRequest> kept;
  ComPtr<framework::IRequestCallbackCancel> callback;
  {
    const MutexLock lock(mutex_);
    if (completed_) return false;
    completed_ = true;
    status_ = status;
    information_ = information;
    valid_ = withOutput ? information : 0;
    callback = std::move(cancelCallback_);
    kept = engine_.release(*this);
    ended_.notifyAll();
  }
  if (operation_) operation_->finish(status, information, output());
  return true;
}

bool WdfRequest::keepUntilCompleted() {
  const MutexLock lock(mutex_);
  if (!completed_) engine_.keep(*this);
  return !completed_;
}

bool WdfRequest::await(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return ended_.waitFor(lock, boundedWait(limit),
                        [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return completed_; });
}

HRESULT WdfRequest::status() {
  const MutexLock lock(mutex_);
  return status_;
}

std::size_t WdfRequest::information() {
  const MutexLock lock(mutex_);
  return information_;
}

ConstBytes WdfRequest::output() {
  const MutexLock lock(mutex_);
  return output_.front(valid_);
}

void WdfRequest::GetDeviceIoControlParameters(ULONG* code, SIZE_T* inLength, SIZE_T* outLength) {
  if (code != nullptr) *code = code_;
  if (inLength != nullptr) *inLength = input_.size();
  if (outLength != nullptr) *outLength = output_.size();
}

void WdfRequest::GetOutputMemory(framework::IWDFMemory** memory) {
  give(output_.size() > 0 ? &output_ : nullptr, memory);
}

void WdfRequest::GetInputMemory(framework::IWDFMemory** memory) {
  give(input_.size() > 0 ? &input_ : nullptr, memory);
}

void WdfRequest::GetFileObject(framework::IWDFFile** file) { give(file_.get(), file); }

void WdfRequest::GetIoQueue(framework::IWDFIoQueue** queue) { give(queue_.get(), queue); }

void WdfRequest::MarkCancelable(framework::IRequestCallbackCancel* callback) {
  switch (mark(callback)) {
    case Marking::kMarked:
      break;
    case Marking::kCancelledBefore:
      // Counts as part of the callback that marks. If it waited for a turn, a driver that marks
      // with a lock held could deadlock.
      callback->OnCancel(this);
      break;
    case Marking::kAgainstTheRules:
      errors().report("driver marked a request cancelable that is completed, marked or cancelled");
      break;
  }
}

WdfRequest::Marking WdfRequest::mark(framework::IRequestCallbackCancel* callback) {
  const MutexLock lock(mutex_);
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
  const MutexLock lock(mutex_);
  if (handedToCallback_) return kCancelled;
  if (!cancelCallback_) return kNotFound;
  callback = std::move(cancelCallback_);
  return framework::kOk;
}

void WdfRequest::cancel() {
  ComPtr<framework::IRequestCallbackCancel> callback;
  {
    const MutexLock lock(mutex_);
    if (completed_ || cancelled_) return;
    cancelled_ = true;
    if (!cancelCallback_) return;
    handedToCallback_ = true;
    callback = std::move(cancelCallback_);
  }
  engine_.callDriver([&] { callback->OnCancel(this); });
}

void WdfRequest::dispatch() {
  engine_.callDriver([this] {
    queue_->deviceIoControl()->OnDeviceIoControl(queue_.get(), this, code_, input_.size(),
                                                 output_.size());
  });
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
