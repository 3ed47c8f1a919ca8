#include "tests/doubles/agent/memory_pipe.h"

#include <algorithm>
#include <utility>

#include "contract/bytes.h"

namespace zelta::test {

using agent::IoResult;
using platform::MutexLock;

void MemoryPipe::give(const Bytes& bytes) {
  const MutexLock lock(mutex_);
  given_.insert(given_.end(), bytes.begin(), bytes.end());
  changed_.notifyAll();
}

std::vector<Bytes> MemoryPipe::takeWrites(std::size_t count) {
  MutexLock lock(mutex_);
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return written_.size() >= count; });
  return written_;
}

std::size_t MemoryPipe::writes() {
  const MutexLock lock(mutex_);
  return written_.size();
}

void MemoryPipe::holdWrites() {
  const MutexLock lock(mutex_);
  held_ = true;
}

void MemoryPipe::letWrites() {
  const MutexLock lock(mutex_);
  held_ = false;
  changed_.notifyAll();
}

void MemoryPipe::waitUntilWriting() {
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return writing_; });
}

IoResult MemoryPipe::read(void* data, std::uint32_t size,
                          std::optional<agent::SteadyClock::time_point> deadline) {
  MutexLock lock(mutex_);
  const auto ready = [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return given_.size() >= size || cancelled_;
  };
  const bool inTime = waitUntil(lock, deadline, ready);
  if (cancelled_) return IoResult::kCancelled;
  if (!inTime) return IoResult::kTimedOut;
  std::copy_n(given_.begin(), size, static_cast<std::uint8_t*>(data));
  given_.erase(given_.begin(), given_.begin() + static_cast<std::ptrdiff_t>(size));
  return IoResult::kDone;
}

IoResult MemoryPipe::awaitCommand() {
  MutexLock lock(mutex_);
  changed_.wait(lock,
                [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !given_.empty() || cancelled_; });
  return cancelled_ ? IoResult::kCancelled : IoResult::kDone;
}

IoResult MemoryPipe::answer(const Bytes& bytes, agent::SteadyClock::time_point deadline) {
  const auto length = toLittleEndian(static_cast<std::uint32_t>(bytes.size()));
  Bytes written(length.begin(), length.end());
  written.insert(written.end(), bytes.begin(), bytes.end());
  return write(std::move(written), deadline, true);
}

IoResult MemoryPipe::post(const void* data, std::uint32_t size,
                          std::optional<agent::SteadyClock::time_point> deadline) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  return write(Bytes(bytes, bytes + size), deadline, false);
}

IoResult MemoryPipe::write(Bytes bytes, std::optional<agent::SteadyClock::time_point> deadline,
                           bool isAnswer) {
  MutexLock lock(mutex_);
  writing_ = true;
  changed_.notifyAll();
  const auto ready = [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return !held_ || cancelled_ || (isAnswer && !given_.empty());
  };
  const bool inTime = waitUntil(lock, deadline, ready);
  writing_ = false;
  if (cancelled_) return IoResult::kCancelled;
  if (isAnswer && !given_.empty()) return IoResult::kGivenUp;
  if (!inTime) return IoResult::kTimedOut;
  written_.push_back(std::move(bytes));
  changed_.notifyAll();
  return IoResult::kDone;
}

IoResult MemoryPipe::flush() {
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !held_ || cancelled_; });
  return cancelled_ ? IoResult::kCancelled : IoResult::kDone;
}

bool MemoryPipe::waitUntil(MutexLock& lock, std::optional<agent::SteadyClock::time_point> deadline,
                           const std::function<bool()>& ready) {
  if (deadline) return changed_.waitFor(lock, *deadline - agent::SteadyClock::now(), ready);
  changed_.wait(lock, ready);
  return true;
}

void MemoryPipe::cancel() {
  const MutexLock lock(mutex_);
  cancelled_ = true;
  changed_.notifyAll();
}

}  // namespace zelta::test
