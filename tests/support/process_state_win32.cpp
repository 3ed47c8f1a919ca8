#include <windows.h>
// windows.h comes first
#include <tlhelp32.h>

#include <filesystem>

#include "tests/support/process_state.h"

namespace zelta::test {

std::size_t threadCount() {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::size_t count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  CloseHandle(snapshot);
  return count;
}

// The system does not name handles, so there is one entry for each.
std::vector<std::string> openFiles() {
  DWORD count = 0;
  GetProcessHandleCount(GetCurrentProcess(), &count);
  return std::vector<std::string>(count, "handle");
}

bool isMapped(const std::string& path) {
  return GetModuleHandleW(std::filesystem::u8path(path).c_str()) != nullptr;
}

}  // namespace zelta::test
