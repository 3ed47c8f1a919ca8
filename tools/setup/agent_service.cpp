#include <windows.h>
// windows.h comes first
#include <array>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/process/scoped_handle_win32.h"
#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace zelta::setup {

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kProgram[] = L"zelta-agent.exe";
constexpr std::wstring_view kName = L"ZeltaAgent";  // and the reader's index

// Names of the agent's services: one for each reader that it was installed for.
std::vector<std::wstring> agentServices() {
  HKEY opened = nullptr;
  const LSTATUS result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services",
                                       0, KEY_ENUMERATE_SUB_KEYS, &opened);
  if (result != ERROR_SUCCESS) {
    throw WindowsError("cannot list the services", static_cast<DWORD>(result));
  }
  const platform::ScopedRegistryKey services(opened);
  std::vector<std::wstring> found;
  std::array<wchar_t, 257> buffer{};
  auto length = static_cast<DWORD>(buffer.size());
  for (DWORD index = 0; RegEnumKeyExW(services.get(), index, buffer.data(), &length, nullptr,
                                      nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++index) {
    const std::wstring name(buffer.data(), length);
    if (name.compare(0, kName.size(), kName) == 0 &&
        name.find_first_not_of(L"0123456789", kName.size()) == std::wstring::npos) {
      found.push_back(name);
    }
    length = static_cast<DWORD>(buffer.size());
  }
  return found;
}

void start(const std::wstring& name) {
  const platform::ScopedService manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const platform::ScopedService service(OpenServiceW(manager.get(), name.c_str(), SERVICE_START));
  require((service && StartServiceW(service.get(), 0, nullptr)) ||
              GetLastError() == ERROR_SERVICE_ALREADY_RUNNING,
          "cannot start the service " + utf8(name));
}

std::string listed(const std::vector<std::wstring>& names) {
  std::string text;
  for (const std::wstring& name : names) text += (text.empty() ? "" : ", ") + utf8(name);
  return text;
}

class AgentService final : public Part {
 public:
  AgentService(const std::wstring& folder, std::wstring arguments)
      : program_(fs::path(folder) / kProgram), arguments_(std::move(arguments)) {}

  Look look() override {
    const std::vector<std::wstring> names = agentServices();
    if (names.empty()) return {Look::State::kAbsent, "none"};
    return {Look::State::kPresent, listed(names)};
  }

  Change add() override {
    std::vector<std::wstring> names = agentServices();
    if (!names.empty()) return {false, listed(names)};
    runAgent(L"service install" + arguments_);
    names = agentServices();
    try {
      for (const std::wstring& name : names) start(name);
    } catch (const WindowsError& error) {
      try {
        remove();
      } catch (const std::exception& failure) {
        throw std::runtime_error(error.what() + std::string("; ") + failure.what());
      }
      throw;
    }
    return {true, listed(names)};
  }

  Change remove() override {
    const std::vector<std::wstring> names = agentServices();
    for (const std::wstring& name : names) {
      runAgent(L"service remove --reader " + name.substr(kName.size()));
    }
    return {!names.empty(), listed(names)};
  }

 private:
  // Runs the agent with this program's output and waits for its end.
  void runAgent(const std::wstring& arguments) const {
    std::wstring command = L"\"" + program_.wstring() + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    require(CreateProcessW(program_.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                           nullptr, &startup, &process),
            "cannot run " + program_.u8string());
    const platform::ScopedKernelHandle thread(process.hThread);
    const platform::ScopedKernelHandle handle(process.hProcess);
    WaitForSingleObject(handle.get(), INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(handle.get(), &code);
    if (code != 0) {
      throw std::runtime_error(utf8(command) + " ended with " + std::to_string(code));
    }
  }

  const fs::path program_;
  const std::wstring arguments_;
};

}  // namespace

std::unique_ptr<Part> makeAgentService(const std::wstring& folder, const std::wstring& arguments) {
  return std::make_unique<AgentService>(folder, arguments);
}

}  // namespace zelta::setup
