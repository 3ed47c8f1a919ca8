#include "tests/doubles/framework/fake_wdf_request.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "contract/status.h"
#include "platform/process/error.h"

namespace zelta::test {

using framework::HRESULT;
using platform::MutexLock;

namespace {

const HRESULT kInsufficientBuffer = hresultFromError(platform::error::kInsufficientBuffer);

}  // namespace

HRESULT FakeWdfMemory::CopyFromBuffer(framework::ULONG_PTR offset, const void* source,
                                      framework::SIZE_T size) {
  touch("CopyFromBuffer");
  if (offset > bytes.size() || size > bytes.size() - offset) return kInsufficientBuffer;
  const auto* from = static_cast<const std::uint8_t*>(source);
  std::copy_n(from, size, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  written = true;
  return framework::kOk;
}

framework::SIZE_T FakeWdfMemory::GetSize() {
  touch("GetSize");
  return bytes.size();
}

void* FakeWdfMemory::GetDataBuffer(framework::SIZE_T* size) {
  touch("GetDataBuffer");
  if (size != nullptr) *size = bytes.size();
  return bytes.data();
}

HRESULT FakeWdfFile::RetrieveFileName(wchar_t* buffer, framework::DWORD* length) {
  touch("RetrieveFileName");
  if (framework::failed(result)) return result;
  const auto needed = static_cast<framework::DWORD>(name.size() + 1);
  const framework::DWORD capacity = std::exchange(*length, needed);
  if (capacity < needed) return kInsufficientBuffer;
  std::copy_n(name.c_str(), needed, buffer);
  return framework::kOk;
}

FakeWdfRequest::FakeWdfRequest(Violations& noted, const RequestSetup& setup)
    : FakeWdfObject("request", noted), setup_(setup) {
  assignResult = setup.assignResult;
  if (setup.input) input_.emplace(noted, *setup.input);
  if (setup.outputCapacity) output_.emplace(noted, Bytes(*setup.outputCapacity));
  if (setup.fileName) {
    file_.emplace(noted);
    rename(*setup.fileName, setup.fileNameResult);
  }
}

void FakeWdfRequest::rename(std::wstring fileName, HRESULT result) {
  file_->name = std::move(fileName);
  file_->result = result;
}

void FakeWdfRequest::complete(const char* operation, HRESULT status,
                              std::optional<std::size_t> information) {
  touch(operation);
  if (setup_.onComplete) setup_.onComplete();
  framework::ComPtr<framework::IRequestCallbackCancel> callback;
  {
    const MutexLock lock(mutex_);
    if (completions_++ > 0) return;
    status_ = status;
    information_ = information;
    std::swap(callback, callback_);
  }
  if (callback) violation("was completed while it was marked cancelable");
  callback.reset();
  for (auto* memory : {&input_, &output_}) {
    if (!memory->has_value()) continue;
    if ((*memory)->driversReferences() != 0) violation("was completed with its memory held");
    (*memory)->expire();
  }
  expire();
  if (setup_.cleanUpAtCompletion) cleanUp();
  giveUp();
  const MutexLock lock(mutex_);
  done_ = true;
  changed_.notifyAll();
}

int FakeWdfRequest::completions() const {
  const MutexLock lock(mutex_);
  return completions_;
}

bool FakeWdfRequest::waitCompleted(std::chrono::milliseconds limit) const {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, limit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return done_ && driversReferences() == 0;
  });
}

bool FakeWdfRequest::waitMarked(std::chrono::milliseconds limit) const {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, limit,
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return marked_; });
}

HRESULT FakeWdfRequest::status() const {
  const MutexLock lock(mutex_);
  EXPECT_GT(completions_, 0) << "not completed";
  return status_;
}

std::optional<std::size_t> FakeWdfRequest::information() const {
  const MutexLock lock(mutex_);
  EXPECT_GT(completions_, 0) << "not completed";
  return information_;
}

bool FakeWdfRequest::markedCancelable() const {
  const MutexLock lock(mutex_);
  return static_cast<bool>(callback_);
}

int FakeWdfRequest::cancelCallbacks() const {
  const MutexLock lock(mutex_);
  return cancelCallbacks_;
}

int FakeWdfRequest::driversReferencesInAll() const {
  return driversReferences() + (input_ ? input_->driversReferences() : 0) +
         (output_ ? output_->driversReferences() : 0) + (file_ ? file_->driversReferences() : 0);
}

void FakeWdfRequest::GetOutputMemory(framework::IWDFMemory** memory) {
  touch("GetOutputMemory");
  if (setup_.onOutput) setup_.onOutput();
  *memory = output_ ? output_->reference() : nullptr;
}

void FakeWdfRequest::GetInputMemory(framework::IWDFMemory** memory) {
  touch("GetInputMemory");
  *memory = input_ ? input_->reference() : nullptr;
}

void FakeWdfRequest::GetFileObject(framework::IWDFFile** file) {
  touch("GetFileObject");
  *file = file_ ? file_->reference() : nullptr;
}

void FakeWdfRequest::MarkCancelable(framework::IRequestCallbackCancel* callback) {
  touch("MarkCancelable");
  {
    const MutexLock lock(mutex_);
    if (callback_ || cancelCallbacks_ > 0) violation("was marked cancelable twice");
    marked_ = true;
    changed_.notifyAll();
    if (!cancelled_) {
      callback_ = framework::ComPtr<framework::IRequestCallbackCancel>(callback);
      return;
    }
    ++cancelCallbacks_;
  }
  callback->OnCancel(this);
}

HRESULT FakeWdfRequest::UnmarkCancelable() {
  touch("UnmarkCancelable");
  framework::ComPtr<framework::IRequestCallbackCancel> withdrawn;
  const MutexLock lock(mutex_);
  std::swap(withdrawn, callback_);
  return withdrawn ? framework::kOk : status::kCancelled;
}

void FakeWdfRequest::cancel() {
  framework::ComPtr<framework::IRequestCallbackCancel> callback;
  {
    const MutexLock lock(mutex_);
    if (completions_ > 0 || std::exchange(cancelled_, true) || !callback_) return;
    ++cancelCallbacks_;
    std::swap(callback, callback_);
    reference();  // the framework's, while the callback runs
  }
  callback->OnCancel(this);
  callback.reset();
  Release();
}

}  // namespace zelta::test
