// Client ends of named pipes. The handles are overlapped, so that a read can run beside a write and
// a cancel reaches what is blocked.
#include <windows.h>
// windows.h comes first
#include <algorithm>
#include <array>
#include <system_error>
#include <type_traits>
#include <utility>

#include "agent/pipe_client_port.h"

namespace zelta::agent {

namespace {

// The system tells nobody when a pipe is created: how long a wait for it lasts at the most.
constexpr std::chrono::milliseconds kLongestWait{500};

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using ScopedHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

ScopedHandle makeEvent() {
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (event == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateEvent");
  }
  return ScopedHandle(event);
}

DWORD milliseconds(std::optional<SteadyClock::time_point> deadline) {
  if (!deadline) return INFINITE;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
  return static_cast<DWORD>(
      std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 0x7FFFFFFF));
}

class NamedPipeConnection final : public PipeConnection {
 public:
  explicit NamedPipeConnection(ScopedHandle pipe)
      : pipe_(std::move(pipe)), cancel_(makeEvent()), read_(makeEvent()), written_(makeEvent()) {}

  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override {
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

  IoResult write(const void* data, std::uint32_t size) override {
    DWORD count = 0;
    return finish(
        written_.get(),
        [&](OVERLAPPED* operation) {
          return WriteFile(pipe_.get(), data, size, nullptr, operation);
        },
        std::nullopt, &count);
  }

  // The driver's pipes have no buffer: what was written has been read.
  IoResult flush() override { return isCancelled() ? IoResult::Cancelled : IoResult::Done; }

  void cancel() override { SetEvent(cancel_.get()); }

 private:
  bool isCancelled() const { return WaitForSingleObject(cancel_.get(), 0) == WAIT_OBJECT_0; }

  // Begins an operation and waits for it, for the deadline or for `cancel`, whichever is first. An
  // operation that is not waited for any longer has ended when this returns.
  template <typename Begin>
  IoResult finish(HANDLE event, Begin begin, std::optional<SteadyClock::time_point> deadline,
                  DWORD* count) {
    if (isCancelled()) return IoResult::Cancelled;
    OVERLAPPED operation{};
    operation.hEvent = event;
    ResetEvent(event);
    if (!begin(&operation) && GetLastError() != ERROR_IO_PENDING) return IoResult::Closed;
    const std::array<HANDLE, 2> events = {event, cancel_.get()};
    const DWORD reason = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(),
                                                FALSE, milliseconds(deadline));
    if (reason != WAIT_OBJECT_0) CancelIoEx(pipe_.get(), &operation);
    if (GetOverlappedResult(pipe_.get(), &operation, count, TRUE)) return IoResult::Done;
    if (reason == WAIT_OBJECT_0) return IoResult::Closed;
    return reason == WAIT_TIMEOUT ? IoResult::TimedOut : IoResult::Cancelled;
  }

  const ScopedHandle pipe_;
  const ScopedHandle cancel_;   // stays signalled
  const ScopedHandle read_;     // one reader
  const ScopedHandle written_;  // one writer
};

OpenResult resultOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
      return OpenResult::Absent;
    case ERROR_PIPE_BUSY:
      return OpenResult::Refused;
    default:
      return OpenResult::Failed;
  }
}

class NamedPipeClient final : public PipeClientPort {
 public:
  NamedPipeClient() : cancel_(makeEvent()) {}

  void watch(const std::vector<std::string>& /*pipeNames*/) override {}

  OpenedPipe open(const std::string& pipeName) override {
    // The driver may learn who the agent is, and not act in its name.
    constexpr DWORD kFlags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    HANDLE pipe = CreateFileA(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                              OPEN_EXISTING, kFlags, nullptr);
    OpenedPipe opened;
    if (pipe == INVALID_HANDLE_VALUE) {
      const DWORD error = GetLastError();
      opened.result = resultOf(error);
      opened.detail = pipeName + ": " + std::system_category().message(static_cast<int>(error));
      return opened;
    }
    opened.result = OpenResult::Opened;
    opened.connection = std::make_unique<NamedPipeConnection>(ScopedHandle(pipe));
    return opened;
  }

  void waitForChange(std::optional<std::chrono::milliseconds> limit) override {
    const auto wait = std::min(limit.value_or(kLongestWait), kLongestWait);
    WaitForSingleObject(cancel_.get(), static_cast<DWORD>(wait.count()));
  }

  void cancel() override { SetEvent(cancel_.get()); }

 private:
  const ScopedHandle cancel_;  // stays signalled
};

}  // namespace

std::unique_ptr<PipeClientPort> makeSystemPipeClient() {
  return std::make_unique<NamedPipeClient>();
}

}  // namespace zelta::agent
