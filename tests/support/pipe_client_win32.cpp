#include <windows.h>
// windows.h comes first
#include <array>
#include <utility>

#include "contract/bytes.h"
#include "tests/support/pipe_client.h"

namespace zelta::test {

namespace {

constexpr std::intptr_t kNone = -1;

HANDLE handleOf(std::intptr_t value) { return reinterpret_cast<HANDLE>(value); }

// Begins an operation and waits for it for `kLimit`; the bytes it moved, or none where it failed.
template <typename Begin>
std::optional<DWORD> finish(std::intptr_t pipe, Begin begin) {
  OVERLAPPED operation{};
  operation.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  DWORD count = 0;
  bool done = begin(&operation) || GetLastError() == ERROR_IO_PENDING;
  if (done) {
    const auto limit = static_cast<DWORD>(PipeClient::kLimit.count());
    if (WaitForSingleObject(operation.hEvent, limit) != WAIT_OBJECT_0) {
      CancelIoEx(handleOf(pipe), &operation);
    }
    done = GetOverlappedResult(handleOf(pipe), &operation, &count, TRUE) != FALSE;
  }
  const DWORD error = GetLastError();
  CloseHandle(operation.hEvent);
  SetLastError(error);
  return done ? std::optional<DWORD>(count) : std::nullopt;
}

}  // namespace

PipeClient::~PipeClient() { close(); }

PipeClient::PipeClient(PipeClient&& other) noexcept
    : socket_(std::exchange(other.socket_, kNone)), error_(other.error_) {}

PipeClient& PipeClient::operator=(PipeClient&& other) noexcept {
  close();
  socket_ = std::exchange(other.socket_, kNone);
  error_ = other.error_;
  return *this;
}

bool PipeClient::connect(const std::string& pipeName) {
  close();
  HANDLE pipe = CreateFileA(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                            OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
  if (pipe == INVALID_HANDLE_VALUE) return fail();
  socket_ = reinterpret_cast<std::intptr_t>(pipe);
  return true;
}

bool PipeClient::connectWhenListening(const std::string& pipeName,
                                      std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!connect(pipeName)) {
    if (std::chrono::steady_clock::now() > end) return false;
    // The system tells nobody of a pipe that is made; of a busy one it tells.
    if (!WaitNamedPipeA(pipeName.c_str(), 10)) Sleep(1);
  }
  return true;
}

bool PipeClient::write(const void* data, std::size_t size) {
  const auto done = finish(socket_, [&](OVERLAPPED* operation) {
    return WriteFile(handleOf(socket_), data, static_cast<DWORD>(size), nullptr, operation);
  });
  return done == static_cast<DWORD>(size) || fail();
}

bool PipeClient::write(const std::vector<std::uint8_t>& bytes) {
  return write(bytes.data(), bytes.size());
}

std::size_t PipeClient::readUpTo(void* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const auto count = finish(socket_, [&](OVERLAPPED* operation) {
      return ReadFile(handleOf(socket_), static_cast<std::uint8_t*>(data) + done,
                      static_cast<DWORD>(size - done), nullptr, operation);
    });
    if (!count) break;
    done += *count;
  }
  return done;
}

bool PipeClient::read(void* data, std::size_t size) {
  return readUpTo(data, size) == size || fail();
}

std::vector<std::uint8_t> PipeClient::read(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  bytes.resize(readUpTo(bytes.data(), size));
  if (bytes.size() < size) fail();
  return bytes;
}

bool PipeClient::writeNumber(std::uint32_t value) {
  const auto bytes = toLittleEndian(value);
  return write(bytes.data(), bytes.size());
}

std::optional<std::uint32_t> PipeClient::readNumber() {
  std::array<std::uint8_t, 4> bytes{};
  if (!read(bytes.data(), bytes.size())) return std::nullopt;
  return loadLittleEndian(bytes.data());
}

bool PipeClient::waitForDrop() {
  std::uint8_t byte = 0;
  if (readUpTo(&byte, 1) != 0) return false;
  const DWORD error = GetLastError();
  return error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED;
}

void PipeClient::close() {
  if (socket_ != kNone) CloseHandle(handleOf(std::exchange(socket_, kNone)));
}

bool PipeClient::fail() {
  const DWORD error = GetLastError();
  // The end of the stream, as `error()` has it.
  error_ = error == ERROR_BROKEN_PIPE ? 0 : static_cast<int>(error);
  return false;
}

}  // namespace zelta::test
