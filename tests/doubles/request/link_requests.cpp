#include "tests/doubles/request/link_requests.h"

#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "framework/com_object.h"
#include "reader/reader.h"

namespace zelta::test {

void* LinkMemory::dataBuffer(std::size_t* size) {
  if (size != nullptr) *size = bytes.size();
  return bytes.data();
}

framework::HRESULT LinkMemory::copyFromBuffer(std::size_t offset, const void* source,
                                              std::size_t size) {
  if (offset > bytes.size() || size > bytes.size() - offset) return status::kInvalidArgument;
  if (size != 0) std::memcpy(bytes.data() + offset, source, size);
  return status::kSuccess;
}

// Only handed through: requests of this kind cancel by their device, not by this.
class LinkDevice::Callback final
    : public framework::ComObject<LinkDevice::Callback, framework::IRequestCallbackCancel> {
 public:
  ~Callback() = default;
  void ZELTA_STDMETHODCALLTYPE OnCancel(framework::IWDFIoRequest* /*request*/) override {}
};

LinkDevice::LinkDevice() : callback_(framework::createObject<Callback>()) {}

LinkDevice::~LinkDevice() { callback_->Release(); }

platform::CriticalSection& LinkDevice::deviceLock() {
  if (failsLock_) throw std::runtime_error("no lock");
  return lock_;
}

framework::HRESULT LinkDevice::queryInterface(framework::REFIID iid, void** out) {
  return callback_->QueryInterface(iid, out);
}

void LinkDevice::setReader(Reader* reader) {
  const platform::MutexLock lock(mutex_);
  reader_ = reader;
}

std::vector<const LinkRequest*> LinkDevice::completed() {
  const platform::MutexLock lock(mutex_);
  return completed_;
}

bool LinkDevice::lockAlwaysHeld() {
  const platform::MutexLock lock(mutex_);
  return lockAlwaysHeld_;
}

bool LinkDevice::lockIsHeld() {
  bool held = true;
  std::thread([this, &held]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    if (!lock_.tryEnter()) return;
    held = false;
    lock_.leave();
  }).join();
  return held;
}

void LinkDevice::noteCompletion(const LinkRequest& request) {
  const bool held = !watchesLock_ || lockIsHeld();
  const platform::MutexLock lock(mutex_);
  lockAlwaysHeld_ = lockAlwaysHeld_ && held;
  completed_.push_back(&request);
}

void LinkDevice::cancel(LinkRequest& request) {
  Reader* reader = nullptr;
  {
    const platform::MutexLock lock(mutex_);
    reader = reader_;
  }
  if (reader == nullptr) return;
  const TracedLock lock("LinkDevice::cancel", lock_, __LINE__);
  reader->IoCancelRequest(&request);
}

LinkRequest::LinkRequest(LinkDevice& device, std::vector<std::uint8_t> input,
                         std::size_t outputSize)
    : device_(device) {
  input_.bytes = std::move(input);
  output_.bytes.resize(outputSize);
}

void LinkRequest::finish(framework::HRESULT status, std::size_t information, bool plain) {
  device_.noteCompletion(*this);
  // Notified under the lock: whoever waits may destroy the request when it is released.
  const platform::MutexLock lock(mutex_);
  ++completions_;
  marked_ = false;
  status_ = status;
  information_ = information;
  plain_ = plain;
  changed_.notifyAll();
}

void LinkRequest::completeWithInformation(framework::HRESULT status, std::size_t information) {
  finish(status, information, false);
}

void LinkRequest::complete(framework::HRESULT status) { finish(status, 0, true); }

Held<IoMemory> LinkRequest::inputMemory() { return Held<IoMemory>(&input_); }

Held<IoMemory> LinkRequest::outputMemory() { return Held<IoMemory>(&output_); }

void LinkRequest::markCancelable(framework::IRequestCallbackCancel* /*callback*/) {
  {
    const platform::MutexLock lock(mutex_);
    wasMarked_ = true;
    changed_.notifyAll();
    if (!cancelRequested_) {
      marked_ = true;
      return;
    }
    cancelling_ = true;
  }
  device_.cancel(*this);
}

framework::HRESULT LinkRequest::unmarkCancelable() {
  const platform::MutexLock lock(mutex_);
  if (cancelling_ || !marked_) return status::kCancelled;
  marked_ = false;
  return status::kSuccess;
}

void LinkRequest::addRef() {
  const platform::MutexLock lock(mutex_);
  ++references_;
}

void LinkRequest::release() {
  const platform::MutexLock lock(mutex_);
  --references_;
  changed_.notifyAll();
}

void LinkRequest::cancel() {
  {
    const platform::MutexLock lock(mutex_);
    if (completions_ != 0 || cancelling_) return;
    if (!marked_) {
      cancelRequested_ = true;
      return;
    }
    cancelling_ = true;
  }
  device_.cancel(*this);
}

void LinkRequest::beginCancel() {
  const platform::MutexLock lock(mutex_);
  cancelling_ = true;
}

bool LinkRequest::waitUntilMarked() {
  platform::MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit,
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return wasMarked_; });
}

// Also waits until the references taken for the completion are given back, so that the request may
// be destroyed.
bool LinkRequest::waitForCompletion() {
  platform::MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return completions_ != 0 && references_ == 0;
  });
}

framework::HRESULT LinkRequest::status() const {
  const platform::MutexLock lock(mutex_);
  return status_;
}

std::size_t LinkRequest::information() const {
  const platform::MutexLock lock(mutex_);
  return information_;
}

bool LinkRequest::completedPlainly() const {
  const platform::MutexLock lock(mutex_);
  return plain_;
}

std::vector<std::uint8_t> LinkRequest::output() const { return output_.bytes; }

int LinkRequest::completions() const {
  const platform::MutexLock lock(mutex_);
  return completions_;
}

int LinkRequest::references() const {
  const platform::MutexLock lock(mutex_);
  return references_;
}

}  // namespace zelta::test
