#include "tests/doubles/request/recording_request.h"

#include <algorithm>

namespace zelta::test {

using framework::ComPtr;
using framework::HRESULT;
using framework::SIZE_T;
using platform::MutexLock;

namespace {

constexpr HRESULT kInsufficientBuffer = framework::hresult(0x8007007A);
constexpr HRESULT kCancelled = framework::hresult(0x800704C7);
constexpr HRESULT kNotFound = framework::hresult(0x80070490);

}  // namespace

void RecordingMemory::checkTouch(const char* operation) {
  if (expired_) violation(std::string(operation) + " was called after the request's completion");
}

HRESULT RecordingMemory::CopyFromBuffer(framework::ULONG_PTR offset, const void* source,
                                        SIZE_T size) {
  touch("CopyFromBuffer");
  if (offset > bytes_.size() || size > bytes_.size() - offset) return kInsufficientBuffer;
  const auto* from = static_cast<const std::uint8_t*>(source);
  std::copy_n(from, size, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
  return framework::kOk;
}

SIZE_T RecordingMemory::GetSize() {
  touch("GetSize");
  return bytes_.size();
}

void* RecordingMemory::GetDataBuffer(SIZE_T* size) {
  touch("GetDataBuffer");
  if (size != nullptr) *size = bytes_.size();
  return bytes_.data();
}

HRESULT RecordingFile::RetrieveFileName(wchar_t* name, framework::DWORD* lengthInCharacters) {
  touch("RetrieveFileName");
  const auto needed = static_cast<framework::DWORD>(name_.size() + 1);
  const framework::DWORD capacity = *lengthInCharacters;
  *lengthInCharacters = needed;
  if (name == nullptr || capacity < needed) return kInsufficientBuffer;
  std::copy_n(name_.c_str(), needed, name);
  return framework::kOk;
}

RecordingRequest::RecordingRequest(Violations& violations, const RequestParts& parts)
    : RecordingObject("request", violations),
      parts_(parts),
      input_(parts.input ? std::make_unique<RecordingMemory>(violations, *parts.input) : nullptr),
      output_(parts.outputCapacity
                  ? std::make_unique<RecordingMemory>(
                        violations, std::vector<std::uint8_t>(*parts.outputCapacity))
                  : nullptr),
      file_(parts.fileName ? std::make_unique<RecordingFile>(violations, *parts.fileName)
                           : nullptr) {}

void RecordingRequest::checkTouch(const char* operation) {
  if (completions_ > 0) {
    violation(std::string(operation) + " was called after the request's completion");
  }
}

void RecordingRequest::complete(const char* operation, HRESULT status, std::size_t information) {
  touch(operation);
  if (completions_++ > 0) return;
  status_ = status;
  information_ = information;
  if (input_) input_->expire();
  if (output_) output_->expire();
  ComPtr<framework::IRequestCallbackCancel> callback;
  {
    MutexLock lock(mutex_);
    callback = std::move(callback_);
  }
  if (callback) violation("was completed while it was marked cancelable");
  callback.reset();
  giveUp();
  MutexLock lock(mutex_);
  done_ = true;
  changed_.notifyAll();
}

void RecordingRequest::CompleteWithInformation(HRESULT status, SIZE_T information) {
  complete("CompleteWithInformation", status, information);
}

void RecordingRequest::Complete(HRESULT status) { complete("Complete", status, 0); }

bool RecordingRequest::waitCompleted(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, limit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return done_; });
}

void RecordingRequest::GetOutputMemory(framework::IWDFMemory** memory) {
  touch("GetOutputMemory");
  *memory = output_ ? output_->reference() : nullptr;
}

void RecordingRequest::GetInputMemory(framework::IWDFMemory** memory) {
  touch("GetInputMemory");
  *memory = input_ ? input_->reference() : nullptr;
}

void RecordingRequest::GetFileObject(framework::IWDFFile** file) {
  touch("GetFileObject");
  *file = file_ ? file_->reference() : nullptr;
}

void RecordingRequest::callBack(framework::IRequestCallbackCancel& callback) {
  ++cancelCallbacks_;
  callback.OnCancel(this);
}

void RecordingRequest::MarkCancelable(framework::IRequestCallbackCancel* callback) {
  touch("MarkCancelable");
  {
    MutexLock lock(mutex_);
    if (callback_ || handedOver_) violation("was marked cancelable twice");
    if (!cancelled_) {
      callback_ = ComPtr<framework::IRequestCallbackCancel>(callback);
      return;
    }
    handedOver_ = true;
  }
  callBack(*callback);
}

HRESULT RecordingRequest::UnmarkCancelable() {
  touch("UnmarkCancelable");
  MutexLock lock(mutex_);
  if (handedOver_) return kCancelled;
  if (!callback_) return kNotFound;
  callback_.reset();
  return framework::kOk;
}

void RecordingRequest::cancel() {
  ComPtr<framework::IRequestCallbackCancel> callback;
  {
    MutexLock lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    if (!callback_) return;
    handedOver_ = true;
    callback = std::move(callback_);
    reference();  // the framework's, through the callback
  }
  callBack(*callback.get());
  Release();
}

int RecordingRequest::driversReferencesInAll() const {
  return driversReferences() + (input_ ? input_->driversReferences() : 0) +
         (output_ ? output_->driversReferences() : 0) + (file_ ? file_->driversReferences() : 0);
}

void RecordingRequest::SetInformation(framework::ULONG_PTR) { unexpected("SetInformation"); }

void RecordingRequest::SetCompletionCallback(framework::IUnknown*, void*) {
  unexpected("SetCompletionCallback");
}

framework::EnumValue RecordingRequest::GetType() {
  unexpected("GetType");
  return framework::kRequestTypeDeviceIoControl;
}

void RecordingRequest::GetCreateParameters(framework::ULONG*, std::uint16_t*, std::uint16_t*) {
  unexpected("GetCreateParameters");
}

void RecordingRequest::GetReadParameters(SIZE_T*, std::int64_t*, framework::ULONG*) {
  unexpected("GetReadParameters");
}

void RecordingRequest::GetWriteParameters(SIZE_T*, std::int64_t*, framework::ULONG*) {
  unexpected("GetWriteParameters");
}

void RecordingRequest::GetDeviceIoControlParameters(framework::ULONG*, SIZE_T*, SIZE_T*) {
  unexpected("GetDeviceIoControlParameters");
}

framework::BOOL RecordingRequest::CancelSentRequest() {
  unexpected("CancelSentRequest");
  return 0;
}

HRESULT RecordingRequest::ForwardToIoQueue(framework::IWDFIoQueue*) {
  return unexpected("ForwardToIoQueue");
}

HRESULT RecordingRequest::Send(void*, framework::ULONG, std::int64_t) { return unexpected("Send"); }

void RecordingRequest::FormatUsingCurrentType() { unexpected("FormatUsingCurrentType"); }

framework::ULONG RecordingRequest::GetRequestorProcessId() {
  unexpected("GetRequestorProcessId");
  return 0;
}

void RecordingRequest::GetIoQueue(framework::IWDFIoQueue** queue) {
  unexpected("GetIoQueue");
  *queue = nullptr;
}

HRESULT RecordingRequest::Impersonate(framework::EnumValue, framework::IUnknown*, void*) {
  return unexpected("Impersonate");
}

framework::BOOL RecordingRequest::IsFrom32BitProcess() {
  unexpected("IsFrom32BitProcess");
  return 0;
}

void RecordingRequest::GetCompletionParams(void** parameters) {
  unexpected("GetCompletionParams");
  *parameters = nullptr;
}

}  // namespace zelta::test
