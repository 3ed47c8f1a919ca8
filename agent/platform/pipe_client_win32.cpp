#include <algorithm>
#include <system_error>
#include <utility>

#include "agent/link/pipe_client_port.h"
#include "agent/platform/pipe_connection_win32.h"

namespace zelta::agent {

namespace {

// How long a wait for a pipe lasts at the most. Windows tells nobody when a pipe is created:
// WaitNamedPipe fails at once (ERROR_FILE_NOT_FOUND (2)) if there is no pipe of the name, no change
// notices are documented for the folder of the pipes, and those of the reader's device come before
// its pipes are there. WaitNamedPipe would do for a pipe that is there and busy, but cannot be
// cancelled. Each look is one call that fails.
constexpr std::chrono::milliseconds kLongestWait{500};

OpenResult resultOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
      return OpenResult::kAbsent;
    case ERROR_PIPE_BUSY:
      return OpenResult::kRefused;
    default:
      return OpenResult::kFailed;
  }
}

class NamedPipeClient final : public PipeClientPort {
 public:
  NamedPipeClient() : cancel_(makeEvent()) {}

  void watch(const std::vector<std::string>& /*pipeNames*/) override {}

  OpenedPipe open(const std::string& pipeName) override {
    // The driver may learn who the agent is, but not act in its name.
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
    opened.result = OpenResult::kOpened;
    opened.connection = std::make_unique<NamedPipeConnection>(platform::ScopedKernelHandle(pipe));
    return opened;
  }

  void waitForChange(std::optional<std::chrono::milliseconds> limit) override {
    const auto wait = std::min(limit.value_or(kLongestWait), kLongestWait);
    WaitForSingleObject(cancel_.get(), static_cast<DWORD>(wait.count()));
  }

  void cancel() override { SetEvent(cancel_.get()); }

 private:
  const platform::ScopedKernelHandle cancel_;  // stays signalled
};

}  // namespace

std::unique_ptr<PipeClientPort> makeSystemPipeClient() {
  return std::make_unique<NamedPipeClient>();
}

}  // namespace zelta::agent
