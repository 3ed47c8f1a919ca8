#include <windows.h>
// windows.h comes first
#include <array>
#include <stdexcept>
#include <type_traits>

#include "platform/files/file.h"
#include "tests/support/child_process.h"

namespace zelta::test {

namespace {

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using ScopedHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

struct Pipe {
  Pipe() {
    HANDLE reading = nullptr;
    HANDLE writing = nullptr;
    if (!CreatePipe(&reading, &writing, nullptr, 0)) throw std::runtime_error("no pipe");
    readEnd.reset(reading);
    writeEnd.reset(writing);
  }
  ScopedHandle readEnd;
  ScopedHandle writeEnd;
};

void letInherit(const ScopedHandle& handle) {
  SetHandleInformation(handle.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
}

std::wstring commandLine(const std::string& program, const std::vector<std::string>& arguments) {
  std::wstring line = L"\"" + platform::nativePath(program).wstring() + L"\"";
  for (const std::string& argument : arguments) {
    line += L" \"" + platform::nativePath(argument).wstring() + L"\"";
  }
  return line;
}

}  // namespace

class ChildProcess::Win32System final : public ChildProcess::System {
 public:
  Win32System(ScopedHandle process, ScopedHandle input, ScopedHandle output)
      : process_(std::move(process)), input_(std::move(input)), output_(std::move(output)) {}

  unsigned long id() const override { return GetProcessId(process_.get()); }

  bool write(const std::string& bytes) override {
    DWORD count = 0;
    return WriteFile(input_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                     nullptr) != FALSE;
  }

  std::string read() override {
    std::array<char, 4096> buffer{};
    DWORD count = 0;
    if (!ReadFile(output_.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &count,
                  nullptr)) {
      return std::string();
    }
    return std::string(buffer.data(), count);
  }

  void kill() override { TerminateProcess(process_.get(), kKilled); }

  int wait() override {
    WaitForSingleObject(process_.get(), INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process_.get(), &code);
    return static_cast<int>(code);
  }

 private:
  const ScopedHandle process_;
  const ScopedHandle input_;
  const ScopedHandle output_;
};

std::unique_ptr<ChildProcess::System> ChildProcess::start(
    const std::string& program, const std::vector<std::string>& arguments) {
  Pipe input;
  Pipe output;
  letInherit(input.readEnd);
  letInherit(output.writeEnd);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = input.readEnd.get();
  startup.hStdOutput = output.writeEnd.get();
  startup.hStdError = output.writeEnd.get();
  std::wstring line = commandLine(program, arguments);
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                      nullptr, &startup, &started)) {
    throw std::runtime_error("cannot start " + program + ": " + std::to_string(GetLastError()));
  }
  CloseHandle(started.hThread);
  return std::make_unique<Win32System>(ScopedHandle(started.hProcess), std::move(input.writeEnd),
                                       std::move(output.readEnd));
}

}  // namespace zelta::test
