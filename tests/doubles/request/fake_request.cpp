#include "tests/doubles/request/fake_request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <new>

#include "contract/bytes.h"
#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "platform/process/error.h"

namespace zelta::test {

class FakeRequest::Memory final : public IoMemory {
 public:
  Memory(FakeRequest& request, Bytes& bytes, bool output)
      : request_(request), bytes_(bytes), output_(output) {}
  void* dataBuffer(std::size_t* size) override {
    const std::lock_guard<std::mutex> lock(request_.mutex_);
    request_.touch("dataBuffer");
    *size = bytes_.size();
    return bytes_.empty() ? nullptr : bytes_.data();
  }

  framework::HRESULT copyFromBuffer(std::size_t offset, const void* source,
                                    std::size_t size) override {
    const std::lock_guard<std::mutex> lock(request_.mutex_);
    request_.touch("copyFromBuffer");
    if (offset > bytes_.size() || size > bytes_.size() - offset) {
      return hresultFromError(platform::error::kInsufficientBuffer);
    }
    const auto* from = static_cast<const std::uint8_t*>(source);
    std::copy(from, from + size, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
    if (output_) request_.outputWritten_ = true;
    return framework::kOk;
  }

  void release() noexcept override {
    const std::lock_guard<std::mutex> lock(request_.mutex_);
    --request_.holders_;
  }

 private:
  FakeRequest& request_;
  Bytes& bytes_;
  const bool output_;
};

FakeRequest::~FakeRequest() {
  EXPECT_EQ(references_, 0) << "references on the request not released";
  EXPECT_EQ(holders_, 0) << "a buffer's holder not released";
}

FakeRequest& FakeRequest::withInput(Bytes bytes) {
  input_ = std::move(bytes);
  return *this;
}

FakeRequest& FakeRequest::withInput(std::uint32_t number) {
  const auto bytes = toLittleEndian(number);
  return withInput(Bytes(bytes.begin(), bytes.end()));
}

FakeRequest& FakeRequest::withOutput(std::size_t capacity) {
  output_ = Bytes(capacity, 0xCC);
  return *this;
}

FakeRequest& FakeRequest::checkingLock() {
  checksLock_ = true;
  return *this;
}

FakeRequest& FakeRequest::failingHolders() {
  failsHolders_ = true;
  return *this;
}

void FakeRequest::touch(const char* operation) const {
  EXPECT_FALSE(completed_) << operation << " on a completed request";
}

void FakeRequest::finish(framework::HRESULT status, std::optional<std::size_t> information) {
  if (checksLock_) {
    EXPECT_TRUE(device_.lockIsHeld()) << "completed without the device lock";
  }
  device_.noteCompletion(*this);
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_FALSE(completed_) << "completed twice";
  EXPECT_FALSE(marked_) << "completed while marked cancelable";
  EXPECT_EQ(holders_, 0) << "completed with a buffer's holder out";
  completed_ = true;
  status_ = static_cast<std::uint32_t>(status);
  information_ = information;
  changed_.notify_all();
}

void FakeRequest::completeWithInformation(framework::HRESULT status, std::size_t information) {
  finish(status, information);
}

void FakeRequest::complete(framework::HRESULT status) { finish(status, std::nullopt); }

Held<IoMemory> FakeRequest::makeHolder(std::optional<Bytes>& buffer, bool output) {
  const std::lock_guard<std::mutex> lock(mutex_);
  touch(output ? "outputMemory" : "inputMemory");
  if (failsHolders_) throw std::bad_alloc();
  if (!buffer.has_value()) return nullptr;
  std::shared_ptr<Memory>& memory = output ? outputMemory_ : inputMemory_;
  memory = std::make_shared<Memory>(*this, *buffer, output);
  ++holders_;
  return Held<IoMemory>(memory.get());
}

Held<IoMemory> FakeRequest::inputMemory() { return makeHolder(input_, false); }

Held<IoMemory> FakeRequest::outputMemory() { return makeHolder(output_, true); }

Held<IoFile> FakeRequest::fileObject() { return nullptr; }

void FakeRequest::runCancelCallback() {
  const TracedLock lock("FakeRequest::cancel", device_.deviceLock(), __LINE__);
  if (device_.onCancel) device_.onCancel(*this);
}

void FakeRequest::markCancelable(framework::IRequestCallbackCancel* callback) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    touch("markCancelable");
    EXPECT_NE(callback, nullptr);
    EXPECT_FALSE(marked_) << "marked twice";
    wasMarked_ = true;
    changed_.notify_all();
    if (!cancelled_) {
      marked_ = true;
      return;
    }
  }
  runCancelCallback();
}

framework::HRESULT FakeRequest::unmarkCancelable() {
  const std::lock_guard<std::mutex> lock(mutex_);
  touch("unmarkCancelable");
  EXPECT_GT(references_, 0) << "unmarked by somebody who holds no reference";
  if (!marked_) return status::kCancelled;
  marked_ = false;
  return framework::kOk;
}

void FakeRequest::cancel() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (completed_ || cancelled_) return;
    cancelled_ = true;
    if (!marked_) return;
    marked_ = false;
  }
  runCancelCallback();
}

void FakeRequest::beginCancel() {
  const std::lock_guard<std::mutex> lock(mutex_);
  cancelled_ = true;
  marked_ = false;
}

void FakeRequest::addRef() {
  const std::lock_guard<std::mutex> lock(mutex_);
  touch("addRef");
  ++references_;
}

void FakeRequest::release() {
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_GT(references_, 0) << "a reference released that was not taken";
  --references_;
  changed_.notify_all();
}

bool FakeRequest::completed() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return completed_;
}

template <typename Reached>
bool FakeRequest::waitUntil(Reached reached) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(30), reached);
}

bool FakeRequest::waitMarked() const {
  return waitUntil([this] { return wasMarked_; });
}

bool FakeRequest::waitCompleted() const {
  return waitUntil([this] { return completed_ && references_ == 0; });
}

bool FakeRequest::markedCancelable() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return marked_;
}

std::uint32_t FakeRequest::status() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_TRUE(completed_) << "not completed";
  return status_;
}

std::optional<std::size_t> FakeRequest::information() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_TRUE(completed_) << "not completed";
  return information_;
}

Bytes FakeRequest::output() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return output_.value_or(Bytes{});
}

bool FakeRequest::outputWritten() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return outputWritten_;
}

Bytes FakeRequest::answer() const {
  if (!outputWritten()) return {};
  Bytes bytes = output();
  bytes.resize(information().value_or(0));
  return bytes;
}

}  // namespace zelta::test
