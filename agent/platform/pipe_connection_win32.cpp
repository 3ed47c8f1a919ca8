#include "agent/platform/pipe_connection_win32.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>
#include <vector>

#include "contract/bytes.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

namespace {

bool isSignalled(HANDLE event) { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }

}  // namespace

DWORD millisecondsUntil(std::optional<SteadyClock::time_point> deadline) {
  if (!deadline) return INFINITE;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
  return static_cast<DWORD>(
      std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 0x7FFFFFFF));
}

platform::ScopedKernelHandle makeEvent() {
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (event == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateEvent");
  }
  return platform::ScopedKernelHandle(event);
}

// One write that nobody waits for. The system uses both members until `done` is signalled.
struct NamedPipeConnection::Post {
  Post(const void* data, std::uint32_t size)
      : done(makeEvent()),
        bytes(static_cast<const unsigned char*>(data),
              static_cast<const unsigned char*>(data) + size) {
    operation.hEvent = done.get();
  }

  const platform::ScopedKernelHandle done;
  OVERLAPPED operation{};
  const std::vector<unsigned char> bytes;
};

NamedPipeConnection::NamedPipeConnection(platform::ScopedKernelHandle pipe)
    : pipe_(std::move(pipe)), cancel_(makeEvent()), read_(makeEvent()), written_(makeEvent()) {}

NamedPipeConnection::~NamedPipeConnection() {
  cancelFirstByte();
  const platform::MutexLock lock(mutex_);
  for (const std::shared_ptr<Post>& post : posts_) {
    CancelIoEx(pipe_.get(), &post->operation);
    DWORD count = 0;
    GetOverlappedResult(pipe_.get(), &post->operation, &count, TRUE);
  }
}

bool NamedPipeConnection::isCancelled() const { return isSignalled(cancel_.get()); }

IoResult NamedPipeConnection::waitFor(HANDLE event,
                                      std::optional<SteadyClock::time_point> deadline) const {
  const std::array<HANDLE, 2> events = {event, cancel_.get()};
  const DWORD reason = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(),
                                              FALSE, millisecondsUntil(deadline));
  if (reason == WAIT_OBJECT_0) return IoResult::kDone;
  return reason == WAIT_TIMEOUT ? IoResult::kTimedOut : IoResult::kCancelled;
}

bool NamedPipeConnection::beginFirstByte() {
  if (first_.state != FirstByte::State::kNone) return true;
  first_.operation = OVERLAPPED{};
  first_.operation.hEvent = first_.done.get();
  ResetEvent(first_.done.get());
  if (!ReadFile(pipe_.get(), &first_.byte, sizeof first_.byte, nullptr, &first_.operation) &&
      GetLastError() != ERROR_IO_PENDING) {
    return false;
  }
  first_.state = FirstByte::State::kAwaited;
  return true;
}

bool NamedPipeConnection::takeFirstByte() {
  DWORD count = 0;
  const bool read = GetOverlappedResult(pipe_.get(), &first_.operation, &count, TRUE) != 0;
  first_.state = read ? FirstByte::State::kKept : FirstByte::State::kNone;
  return read;
}

void NamedPipeConnection::cancelFirstByte() {
  if (first_.state != FirstByte::State::kAwaited) return;
  CancelIoEx(pipe_.get(), &first_.operation);
  takeFirstByte();
}

IoResult NamedPipeConnection::awaitCommand() {
  if (isCancelled()) return IoResult::kCancelled;
  if (!beginFirstByte()) return IoResult::kClosed;
  const IoResult waited = waitFor(first_.done.get(), std::nullopt);
  if (waited != IoResult::kDone) {
    cancelFirstByte();
    return waited;
  }
  return takeFirstByte() ? IoResult::kDone : IoResult::kClosed;
}

IoResult NamedPipeConnection::read(void* data, std::uint32_t size,
                                   std::optional<SteadyClock::time_point> deadline) {
  auto* bytes = static_cast<unsigned char*>(data);
  if (size > 0 && first_.state == FirstByte::State::kKept) {
    first_.state = FirstByte::State::kNone;
    *bytes++ = first_.byte;
    --size;
  }
  while (size > 0) {
    const Read some = readSome(bytes, size, deadline);
    if (some.result != IoResult::kDone) return some.result;
    bytes += some.count;
    size -= some.count;
  }
  return IoResult::kDone;
}

NamedPipeConnection::Read NamedPipeConnection::readSome(
    void* data, std::uint32_t size, std::optional<SteadyClock::time_point> deadline) {
  if (isCancelled()) return {IoResult::kCancelled};
  OVERLAPPED operation{};
  operation.hEvent = read_.get();
  ResetEvent(read_.get());
  if (!ReadFile(pipe_.get(), data, size, nullptr, &operation) &&
      GetLastError() != ERROR_IO_PENDING) {
    return {IoResult::kClosed};
  }
  const IoResult waited = waitFor(read_.get(), deadline);
  if (waited != IoResult::kDone) CancelIoEx(pipe_.get(), &operation);
  DWORD count = 0;
  if (GetOverlappedResult(pipe_.get(), &operation, &count, TRUE)) return {IoResult::kDone, count};
  return {waited == IoResult::kDone ? IoResult::kClosed : waited};
}

IoResult NamedPipeConnection::answer(const Bytes& bytes, SteadyClock::time_point deadline) {
  if (isCancelled()) return IoResult::kCancelled;
  if (!beginFirstByte()) return IoResult::kClosed;
  if (isSignalled(first_.done.get())) {
    return takeFirstByte() ? IoResult::kGivenUp : IoResult::kClosed;
  }
  const auto length = toLittleEndian(static_cast<std::uint32_t>(bytes.size()));
  answer_.assign(length.begin(), length.end());
  answer_.insert(answer_.end(), bytes.begin(), bytes.end());
  OVERLAPPED operation{};
  operation.hEvent = written_.get();
  ResetEvent(written_.get());
  const bool begun = WriteFile(pipe_.get(), answer_.data(), static_cast<DWORD>(answer_.size()),
                               nullptr, &operation) ||
                     GetLastError() == ERROR_IO_PENDING;
  const IoResult result = begun ? finishAnswer(&operation, deadline) : IoResult::kClosed;
  platform::wipe(answer_.data(), answer_.size());
  return result;
}

IoResult NamedPipeConnection::finishAnswer(OVERLAPPED* operation,
                                           SteadyClock::time_point deadline) {
  constexpr DWORD kWritten = WAIT_OBJECT_0;
  constexpr DWORD kNextCommand = WAIT_OBJECT_0 + 1;
  const std::array<HANDLE, 3> events = {written_.get(), first_.done.get(), cancel_.get()};
  const DWORD reason = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(),
                                              FALSE, millisecondsUntil(deadline));
  if (reason != kWritten) CancelIoEx(pipe_.get(), operation);
  DWORD count = 0;
  // The write may have succeeded just before the next command came.
  if (GetOverlappedResult(pipe_.get(), operation, &count, TRUE) && count == answer_.size()) {
    return IoResult::kDone;
  }
  if (reason == WAIT_TIMEOUT) return IoResult::kTimedOut;
  if (reason == kNextCommand) return takeFirstByte() ? IoResult::kGivenUp : IoResult::kClosed;
  return reason == kWritten ? IoResult::kClosed : IoResult::kCancelled;
}

IoResult NamedPipeConnection::dropRead() {
  while (!posts_.empty()) {
    Post& first = *posts_.front();
    if (!isSignalled(first.done.get())) break;
    DWORD count = 0;
    if (!GetOverlappedResult(pipe_.get(), &first.operation, &count, FALSE)) {
      return IoResult::kClosed;
    }
    posts_.pop_front();
  }
  return IoResult::kDone;
}

IoResult NamedPipeConnection::post(const void* data, std::uint32_t size,
                                   std::optional<SteadyClock::time_point> deadline) {
  auto made = std::make_shared<Post>(data, size);
  platform::MutexLock lock(mutex_);
  for (;;) {
    if (isCancelled()) return IoResult::kCancelled;
    if (dropRead() != IoResult::kDone) return IoResult::kClosed;
    if (posts_.size() < kMostPosts) break;
    const std::shared_ptr<Post> first = posts_.front();
    lock.unlock();
    const IoResult waited = waitFor(first->done.get(), deadline);
    lock.lock();
    if (waited != IoResult::kDone) return waited;
  }
  // Stored before it begins: the system must not be left with freed memory.
  posts_.push_back(made);
  if (WriteFile(pipe_.get(), made->bytes.data(), size, nullptr, &made->operation) ||
      GetLastError() == ERROR_IO_PENDING) {
    return IoResult::kDone;
  }
  posts_.pop_back();
  return IoResult::kClosed;
}

IoResult NamedPipeConnection::flush() {
  platform::MutexLock lock(mutex_);
  for (;;) {
    if (isCancelled()) return IoResult::kCancelled;
    if (dropRead() != IoResult::kDone) return IoResult::kClosed;
    if (posts_.empty()) return IoResult::kDone;
    const std::shared_ptr<Post> last = posts_.back();
    lock.unlock();
    const IoResult waited = waitFor(last->done.get(), std::nullopt);
    lock.lock();
    if (waited != IoResult::kDone) return waited;
  }
}

}  // namespace zelta::agent
