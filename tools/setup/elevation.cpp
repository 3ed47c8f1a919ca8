#include "tools/setup/elevation.h"

// windows.h comes first
#include <shellapi.h>
#include <shlwapi.h>

#include <array>
#include <cstdio>
#include <iostream>

#include "platform/process/scoped_handle_win32.h"
#include "tools/setup/windows_error.h"

namespace zelta::setup {

bool isElevated() {
  HANDLE opened = nullptr;
  require(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened), "cannot read the rights");
  const platform::ScopedKernelHandle token(opened);
  TOKEN_ELEVATION elevation{};
  DWORD size = 0;
  require(GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof(elevation), &size),
          "cannot read the rights");
  return elevation.TokenIsElevated != 0;
}

std::optional<int> runElevated() {
  std::array<wchar_t, 32768> program{};
  require(GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())) > 0,
          "cannot find this program");
  const std::wstring arguments = wide(kConsoleOption) + L"=" +
                                 std::to_wstring(GetCurrentProcessId()) + L" " +
                                 PathGetArgsW(GetCommandLineW());
  std::array<wchar_t, 32768> folder{};  // otherwise it might start in the system's folder
  require(GetCurrentDirectoryW(static_cast<DWORD>(folder.size()), folder.data()) > 0,
          "cannot find the current folder");
  SHELLEXECUTEINFOW execution{};
  execution.cbSize = sizeof(execution);
  execution.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC;
  execution.lpVerb = L"runas";
  execution.lpFile = program.data();
  execution.lpParameters = arguments.c_str();
  execution.lpDirectory = folder.data();
  execution.nShow = SW_HIDE;
  if (!ShellExecuteExW(&execution)) {
    if (GetLastError() == ERROR_CANCELLED) return std::nullopt;
    throw WindowsError("cannot get an administrator's rights", GetLastError());
  }
  const platform::ScopedKernelHandle process(execution.hProcess);
  WaitForSingleObject(process.get(), INFINITE);
  DWORD code = 0;
  require(GetExitCodeProcess(process.get(), &code), "cannot read the exit code");
  return static_cast<int>(code);
}

void useConsoleOf(DWORD process) {
  FreeConsole();
  if (!AttachConsole(process)) return;  // that process has none, and this one needs none
  for (std::FILE* stream : {stdout, stderr}) {
    static_cast<void>(std::freopen("CONOUT$", "w", stream));
  }
  std::cout.clear();
  std::cerr.clear();
}

}  // namespace zelta::setup
