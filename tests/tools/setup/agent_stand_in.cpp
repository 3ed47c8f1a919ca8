// Replaces zelta-agent.exe when setup makes and removes its service; does only what setup relies
// on. `service install fail` makes nothing; `service install mute` makes one that does not start.
#include <windows.h>

#include <string>

namespace {

constexpr wchar_t kName[] = L"ZeltaAgent7";

SERVICE_STATUS_HANDLE statusHandle = nullptr;
HANDLE ended = nullptr;

void report(DWORD state) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
  SetServiceStatus(statusHandle, &status);
}

DWORD WINAPI control(DWORD code, DWORD, void*, void*) {
  if (code == SERVICE_CONTROL_STOP) SetEvent(ended);
  return NO_ERROR;
}

void WINAPI serve(DWORD, wchar_t**) {
  ended = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  statusHandle = RegisterServiceCtrlHandlerExW(kName, control, nullptr);
  report(SERVICE_RUNNING);
  WaitForSingleObject(ended, INFINITE);
  report(SERVICE_STOPPED);
}

int runService() {
  wchar_t name[] = L"";
  const SERVICE_TABLE_ENTRYW table[] = {{name, serve}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}

int install(SC_HANDLE manager, const std::wstring& arguments) {
  if (arguments == L" fail") return 7;
  std::wstring program(MAX_PATH, L'\0');
  program.resize(GetModuleFileNameW(nullptr, program.data(), MAX_PATH));
  const std::wstring command =
      L"\"" + program + (arguments == L" mute" ? L".mute" : L"") + L"\" service run" + arguments;
  return CreateServiceW(manager, kName, kName, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                        SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, command.c_str(), nullptr,
                        nullptr, nullptr, nullptr, nullptr) != nullptr
             ? 0
             : 1;
}

int remove(SC_HANDLE manager) {
  const SC_HANDLE service = OpenServiceW(manager, kName, SERVICE_ALL_ACCESS);
  SERVICE_STATUS status{};
  ControlService(service, SERVICE_CONTROL_STOP, &status);
  return DeleteService(service) ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring action = argc > 2 && argv[1] == std::wstring(L"service") ? argv[2] : L"";
  if (action == L"run") return runService();
  std::wstring arguments;
  for (int index = 3; index < argc; ++index) arguments += L" " + std::wstring(argv[index]);
  const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  if (action == L"install") return install(manager, arguments);
  if (action == L"remove" && arguments == L" --reader 7") return remove(manager);
  return 2;
}
