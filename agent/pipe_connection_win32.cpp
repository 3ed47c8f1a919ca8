#include "agent/pipe_connection_win32.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>
#include <vector>

namespace zelta::agent {

namespace {

DWORD milliseconds(std::optional<SteadyClock::time_point> deadline) {
  if (!deadline) return INFINITE;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
  return static_cast<DWORD>(
      std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 0x7FFFFFFF));
}

}  // namespace

ScopedHandle makeEvent() {
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (event == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateEvent");
  }
  return ScopedHandle(event);
}

// One write that nobody waits for. The system uses both members until `done` is signalled.
struct NamedPipeConnection::Post {
  Post(const void* data, std::uint32_t size)
      : done(makeEvent()),
        bytes(static_cast<const unsigned char*>(data),
              static_cast<const unsigned char*>(data) + size) {
    operation.hEvent = done.get();
  }

  const ScopedHandle done;
  OVERLAPPED operation{};
  const std::vector<unsigned char> bytes;
};

NamedPipeConnection::NamedPipeConnection(ScopedHandle pipe)
    : pipe_(std::move(pipe)), cancel_(makeEvent()), read_(makeEvent()), written_(makeEvent()) {}

NamedPipeConnection::~NamedPipeConnection() {
  platform::MutexLock lock(mutex_);
  for (const std::shared_ptr<Post>& post : posts_) {
    CancelIoEx(pipe_.get(), &post->operation);
    DWORD count = 0;
    GetOverlappedResult(pipe_.get(), &post->operation, &count, TRUE);
  }
}

bool NamedPipeConnection::isCancelled() const {
  return WaitForSingleObject(cancel_.get(), 0) == WAIT_OBJECT_0;
}

IoResult NamedPipeConnection::waitFor(HANDLE event,
                                      std::optional<SteadyClock::time_point> deadline) const {
  const std::array<HANDLE, 2> events = {event, cancel_.get()};
  const DWORD reason = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(),
                                              FALSE, milliseconds(deadline));
  if (reason == WAIT_OBJECT_0) return IoResult::Done;
  return reason == WAIT_TIMEOUT ? IoResult::TimedOut : IoResult::Cancelled;
}

template <typename Begin>
IoResult NamedPipeConnection::finish(HANDLE event, Begin begin,
                                     std::optional<SteadyClock::time_point> deadline,
                                     DWORD* count) {
  if (isCancelled()) return IoResult::Cancelled;
  OVERLAPPED operation{};
  operation.hEvent = event;
  ResetEvent(event);
  if (!begin(&operation) && GetLastError() != ERROR_IO_PENDING) return IoResult::Closed;
  const IoResult waited = waitFor(event, deadline);
  if (waited != IoResult::Done) CancelIoEx(pipe_.get(), &operation);
  if (GetOverlappedResult(pipe_.get(), &operation, count, TRUE)) return IoResult::Done;
  return waited == IoResult::Done ? IoResult::Closed : waited;
}

IoResult NamedPipeConnection::read(void* data, std::uint32_t size,
                                   std::optional<SteadyClock::time_point> deadline) {
  auto* bytes = static_cast<unsigned char*>(data);
  while (size > 0) {
    DWORD count = 0;
    const IoResult result = finish(
        read_.get(),
        [&](OVERLAPPED* operation) {
          return ReadFile(pipe_.get(), bytes, size, nullptr, operation);
        },
        deadline, &count);
    if (result != IoResult::Done) return result;
    bytes += count;
    size -= count;
  }
  return IoResult::Done;
}

IoResult NamedPipeConnection::write(const void* data, std::uint32_t size,
                                    std::optional<SteadyClock::time_point> deadline) {
  DWORD count = 0;
  return finish(
      written_.get(),
      [&](OVERLAPPED* operation) { return WriteFile(pipe_.get(), data, size, nullptr, operation); },
      deadline, &count);
}

IoResult NamedPipeConnection::takeRead() {
  while (!posts_.empty()) {
    Post& first = *posts_.front();
    if (WaitForSingleObject(first.done.get(), 0) != WAIT_OBJECT_0) break;
    DWORD count = 0;
    if (!GetOverlappedResult(pipe_.get(), &first.operation, &count, FALSE)) return IoResult::Closed;
    posts_.pop_front();
  }
  return IoResult::Done;
}

IoResult NamedPipeConnection::post(const void* data, std::uint32_t size,
                                   std::optional<SteadyClock::time_point> deadline) {
  auto made = std::make_shared<Post>(data, size);
  platform::MutexLock lock(mutex_);
  for (;;) {
    if (isCancelled()) return IoResult::Cancelled;
    if (takeRead() != IoResult::Done) return IoResult::Closed;
    if (posts_.size() < kMostPosts) break;
    const std::shared_ptr<Post> first = posts_.front();
    lock.unlock();
    const IoResult waited = waitFor(first->done.get(), deadline);
    lock.lock();
    if (waited != IoResult::Done) return waited;
  }
  // Noted before it begins: the system must not be left with memory that is gone.
  posts_.push_back(made);
  if (WriteFile(pipe_.get(), made->bytes.data(), size, nullptr, &made->operation) ||
      GetLastError() == ERROR_IO_PENDING) {
    return IoResult::Done;
  }
  posts_.pop_back();
  return IoResult::Closed;
}

IoResult NamedPipeConnection::flush() {
  platform::MutexLock lock(mutex_);
  for (;;) {
    if (isCancelled()) return IoResult::Cancelled;
    if (takeRead() != IoResult::Done) return IoResult::Closed;
    if (posts_.empty()) return IoResult::Done;
    const std::shared_ptr<Post> last = posts_.back();
    lock.unlock();
    const IoResult waited = waitFor(last->done.get(), std::nullopt);
    lock.lock();
    if (waited != IoResult::Done) return waited;
  }
}

}  // namespace zelta::agent
