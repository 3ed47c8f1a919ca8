#include <windows.h>
// windows.h comes first
#include <optional>

#include "tests/support/pipes/pipe_client.h"

namespace zelta::test {

namespace {

// Begins an operation and waits for it for `kLimit`; the bytes it moved, or none if it failed.
template <typename Begin>
std::optional<DWORD> finish(HANDLE pipe, Begin begin) {
  const platform::ScopedKernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED operation{};
  operation.hEvent = event.get();
  DWORD count = 0;
  bool done = begin(&operation) || GetLastError() == ERROR_IO_PENDING;
  if (done) {
    const auto limit = static_cast<DWORD>(PipeClient::kLimit.count());
    if (WaitForSingleObject(operation.hEvent, limit) != WAIT_OBJECT_0) {
      CancelIoEx(pipe, &operation);
    }
    done = GetOverlappedResult(pipe, &operation, &count, TRUE) != FALSE;
  }
  return done ? std::optional<DWORD>(count) : std::nullopt;
}

}  // namespace

bool PipeClient::connect(const std::string& pipeName) {
  close();
  pipe_.reset(CreateFileA(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                          FILE_FLAG_OVERLAPPED, nullptr));
  return pipe_ || fail();
}

bool PipeClient::connectWhenListening(const std::string& pipeName,
                                      std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!connect(pipeName)) {
    if (std::chrono::steady_clock::now() > end) return false;
    // The system announces a busy pipe that becomes free, but not a pipe that is made.
    if (!WaitNamedPipeA(pipeName.c_str(), 10)) Sleep(1);
  }
  return true;
}

bool PipeClient::write(const void* data, std::size_t size) {
  const auto done = finish(pipe_.get(), [&](OVERLAPPED* operation) {
    return WriteFile(pipe_.get(), data, static_cast<DWORD>(size), nullptr, operation);
  });
  return done == static_cast<DWORD>(size) || fail();
}

std::size_t PipeClient::readUpTo(void* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const auto count = finish(pipe_.get(), [&](OVERLAPPED* operation) {
      return ReadFile(pipe_.get(), static_cast<std::uint8_t*>(data) + done,
                      static_cast<DWORD>(size - done), nullptr, operation);
    });
    if (!count) {
      fail();
      break;
    }
    done += *count;
  }
  return done;
}

bool PipeClient::waitForDrop() {
  std::uint8_t byte = 0;
  return !read(&byte, 1) && (error_ == 0 || error_ == ERROR_PIPE_NOT_CONNECTED);
}

bool PipeClient::fail() {
  const DWORD error = GetLastError();
  // The end of the stream, as `error()` has it.
  error_ = error == ERROR_BROKEN_PIPE ? 0 : static_cast<int>(error);
  return false;
}

}  // namespace zelta::test
