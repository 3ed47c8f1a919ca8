#include "tests/doubles/framework/fake_wdf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "contract/status.h"
#include "platform/process/error.h"
#include "tests/doubles/framework/fake_wdf_device.h"

namespace zelta::test {

using framework::HRESULT;

namespace {

std::atomic<int> living{0};

}  // namespace

int livingObjects() { return living; }

template <typename Interface>
WdfObject<Interface>::WdfObject() {
  ++living;
}

template <typename Interface>
WdfObject<Interface>::~WdfObject() {
  --living;
}

template <typename Interface>
HRESULT WdfObject<Interface>::unexpected() {
  ADD_FAILURE() << "an operation that the driver has no reason to call";
  return status::kNotSupported;
}

template <typename Interface>
HRESULT WdfObject<Interface>::QueryInterface(framework::REFIID wanted, void** out) {
  if (wanted != Interface::iid && wanted != framework::IUnknown::iid) {
    *out = nullptr;
    return framework::kNoInterface;
  }
  *out = static_cast<Interface*>(this);
  AddRef();
  return framework::kOk;
}

template <typename Interface>
framework::ULONG WdfObject<Interface>::AddRef() {
  const std::lock_guard<std::mutex> lock(countMutex_);
  EXPECT_GT(references_, 0u) << "a reference on what is gone";
  return ++references_;
}

template <typename Interface>
framework::ULONG WdfObject<Interface>::Release() {
  {
    const std::lock_guard<std::mutex> lock(countMutex_);
    EXPECT_GT(references_, 0u) << "released too often";
    if (--references_ > 0) return references_;
  }
  cleanUp();
  delete this;
  return 0;
}

template <typename Interface>
void WdfObject<Interface>::cleanUp() {
  framework::IObjectCleanup* cleanup = nullptr;
  bool last = false;
  {
    const std::lock_guard<std::mutex> lock(countMutex_);
    std::swap(cleanup, cleanup_);
    context_ = nullptr;
    last = references_ == 0;
  }
  if (cleanup == nullptr) return;
  cleanup->AddRef();
  cleanup->OnCleanup(this);
  const framework::ULONG left = cleanup->Release();
  EXPECT_TRUE(!last || left == 0) << "the context is still there after its cleanup";
}

template <typename Interface>
HRESULT WdfObject<Interface>::AssignContext(framework::IObjectCleanup* cleanup, void* context) {
  if (framework::failed(assignResult)) return assignResult;
  const std::lock_guard<std::mutex> lock(countMutex_);
  EXPECT_EQ(cleanup_, nullptr) << "a second context";
  cleanup_ = cleanup;
  context_ = context;
  return framework::kOk;
}

template <typename Interface>
HRESULT WdfObject<Interface>::RetrieveContext(void** context) {
  const std::lock_guard<std::mutex> lock(countMutex_);
  *context = context_;
  return context_ != nullptr ? framework::kOk : hresultFromError(platform::error::kNotFound);
}

template <typename Interface>
framework::ULONG WdfObject<Interface>::references() const {
  const std::lock_guard<std::mutex> lock(countMutex_);
  return references_;
}

template class WdfObject<framework::IWDFIoRequest>;
template class WdfObject<framework::IWDFMemory>;
template class WdfObject<framework::IWDFFile>;
template class WdfObject<framework::IWDFDevice>;
template class WdfObject<framework::IWDFDriver>;
template class WdfObject<framework::IWDFIoQueue>;

bool Outcome::completed() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return completed_;
}

bool Outcome::wait() const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return completed_; });
}

std::uint32_t Outcome::status() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_TRUE(completed_) << "not completed";
  return status_;
}

std::optional<std::size_t> Outcome::information() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_TRUE(completed_) << "not completed";
  return information_;
}

std::vector<std::uint8_t> Outcome::output() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return output_;
}

void Outcome::complete(HRESULT status, std::optional<std::size_t> information,
                       const FakeWdfMemory* output) {
  const std::lock_guard<std::mutex> lock(mutex_);
  completed_ = true;
  status_ = static_cast<std::uint32_t>(status);
  information_ = information;
  if (output != nullptr) output_.assign(output->bytes.begin(), output->bytes.end());
  changed_.notify_all();
}

FakeWdfRequest::FakeWdfRequest(const RequestSetup& setup)
    : onComplete_(setup.onComplete), cleanUpAtCompletion_(setup.cleanUpAtCompletion) {
  assignResult = setup.assignResult;
  if (setup.input.has_value()) input_ = new FakeWdfMemory(*setup.input);
  if (setup.outputCapacity.has_value()) {
    output_ = new FakeWdfMemory(std::vector<std::uint8_t>(*setup.outputCapacity));
    outcome_->output_.reserve(*setup.outputCapacity);
  }
  if (setup.fileName.has_value()) file_ = new FakeWdfFile(*setup.fileName, setup.fileNameResult);
}

FakeWdfRequest::~FakeWdfRequest() {
  EXPECT_TRUE(completed_) << "a request let go of without completion";
  if (input_ != nullptr) input_->Release();
  if (output_ != nullptr) output_->Release();
  if (file_ != nullptr) file_->Release();
}

void FakeWdfRequest::touch(const char* operation) const {
  EXPECT_FALSE(completed_) << operation << " on a completed request";
}

void FakeWdfRequest::finish(HRESULT status, std::optional<std::size_t> information) {
  if (onComplete_) onComplete_();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_FALSE(completed_) << "completed twice";
    EXPECT_FALSE(callback_) << "completed while marked cancelable";
    for (const FakeWdfMemory* memory : {input_, output_}) {
      EXPECT_TRUE(memory == nullptr || memory->references() == 1) << "completed with memory out";
    }
    completed_ = true;
    outcome_->complete(status, information, output_);
  }
  if (cleanUpAtCompletion_) cleanUp();
  Release();
}

void FakeWdfRequest::CompleteWithInformation(HRESULT status, framework::SIZE_T information) {
  finish(status, information);
}

void FakeWdfRequest::Complete(HRESULT status) { finish(status, std::nullopt); }

void FakeWdfRequest::GetOutputMemory(framework::IWDFMemory** memory) {
  const std::lock_guard<std::mutex> lock(mutex_);
  touch("GetOutputMemory");
  *memory = output_;
  if (output_ != nullptr) output_->AddRef();
}

void FakeWdfRequest::GetInputMemory(framework::IWDFMemory** memory) {
  const std::lock_guard<std::mutex> lock(mutex_);
  touch("GetInputMemory");
  *memory = input_;
  if (input_ != nullptr) input_->AddRef();
}

void FakeWdfRequest::GetFileObject(framework::IWDFFile** file) {
  const std::lock_guard<std::mutex> lock(mutex_);
  touch("GetFileObject");
  *file = file_;
  if (file_ != nullptr) file_->AddRef();
}

void FakeWdfRequest::MarkCancelable(framework::IRequestCallbackCancel* callback) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    touch("MarkCancelable");
    EXPECT_FALSE(callback_) << "marked twice";
    if (!cancelled_) {
      callback_ = framework::ComPtr<framework::IRequestCallbackCancel>(callback);
      return;
    }
  }
  runCancelCallback(framework::ComPtr<framework::IRequestCallbackCancel>(callback));
}

HRESULT FakeWdfRequest::UnmarkCancelable() {
  framework::ComPtr<framework::IRequestCallbackCancel> withdrawn;
  const std::lock_guard<std::mutex> lock(mutex_);
  touch("UnmarkCancelable");
  std::swap(withdrawn, callback_);
  return withdrawn ? framework::kOk : status::kCancelled;
}

void FakeWdfRequest::cancel() {
  framework::ComPtr<framework::IRequestCallbackCancel> callback;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (completed_ || cancelled_) return;
    cancelled_ = true;
    if (!callback_) return;
    std::swap(callback, callback_);
  }
  runCancelCallback(std::move(callback));
}

void FakeWdfRequest::runCancelCallback(
    framework::ComPtr<framework::IRequestCallbackCancel> callback) {
  callback->OnCancel(this);
}

bool FakeWdfRequest::markedCancelable() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<bool>(callback_);
}

void FakeWdfRequest::rename(std::wstring fileName, HRESULT result) {
  const std::lock_guard<std::mutex> lock(mutex_);
  file_->Release();
  file_ = new FakeWdfFile(std::move(fileName), result);
}

void FakeWdfRequest::SetCompletionCallback(framework::IUnknown*, void*) { unexpected(); }
void FakeWdfRequest::GetCreateParameters(framework::ULONG*, std::uint16_t*, std::uint16_t*) {
  unexpected();
}
void FakeWdfRequest::GetReadParameters(framework::SIZE_T*, std::int64_t*, framework::ULONG*) {
  unexpected();
}
void FakeWdfRequest::GetWriteParameters(framework::SIZE_T*, std::int64_t*, framework::ULONG*) {
  unexpected();
}
void FakeWdfRequest::GetDeviceIoControlParameters(framework::ULONG*, framework::SIZE_T*,
                                                  framework::SIZE_T*) {
  unexpected();
}
HRESULT FakeWdfRequest::ForwardToIoQueue(framework::IWDFIoQueue*) { return unexpected(); }
HRESULT FakeWdfRequest::Send(void*, framework::ULONG, std::int64_t) { return unexpected(); }
framework::ULONG FakeWdfRequest::GetRequestorProcessId() {
  return static_cast<framework::ULONG>(unexpected());
}
HRESULT FakeWdfRequest::Impersonate(framework::EnumValue, framework::IUnknown*, void*) {
  return unexpected();
}

HRESULT FakeWdfMemory::CopyFromMemory(framework::IWDFMemory*, void*) { return unexpected(); }
HRESULT FakeWdfMemory::CopyToBuffer(framework::ULONG_PTR, void*, framework::SIZE_T) {
  return unexpected();
}

HRESULT FakeWdfMemory::CopyFromBuffer(framework::ULONG_PTR offset, const void* source,
                                      framework::SIZE_T size) {
  if (offset > bytes.size() || size > bytes.size() - offset) {
    return hresultFromError(platform::error::kInsufficientBuffer);
  }
  const auto* from = static_cast<const std::uint8_t*>(source);
  std::copy(from, from + size, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  return framework::kOk;
}

void* FakeWdfMemory::GetDataBuffer(framework::SIZE_T* size) {
  if (size != nullptr) *size = bytes.size();
  return bytes.data();
}

HRESULT FakeWdfFile::RetrieveFileName(wchar_t* name, framework::DWORD* length) {
  if (framework::failed(result_)) return result_;
  if (name_.size() + 1 > *length) return hresultFromError(platform::error::kInsufficientBuffer);
  std::copy(name_.begin(), name_.end(), name);
  name[name_.size()] = L'\0';
  *length = static_cast<framework::DWORD>(name_.size());
  return framework::kOk;
}

}  // namespace zelta::test
