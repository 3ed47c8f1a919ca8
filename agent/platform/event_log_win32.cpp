#include "agent/platform/event_log_win32.h"

#include <windows.h>
// windows.h comes first
#include <memory>
#include <stdexcept>
#include <system_error>

#include "platform/process/scoped_handle_win32.h"

namespace zelta::agent {

namespace {

constexpr DWORD kLine = 1;  // the number of the events' form in events.mc
constexpr DWORD kTypes = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;

std::string keyOf(const std::string& source) {
  return "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + source;
}

void check(LONG error) {
  if (error == ERROR_SUCCESS) return;
  throw std::runtime_error("the event log's source: " + std::system_category().message(error));
}

WORD typeOf(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return EVENTLOG_ERROR_TYPE;
    case Severity::kWarning:
      return EVENTLOG_WARNING_TYPE;
    default:
      return EVENTLOG_INFORMATION_TYPE;
  }
}

}  // namespace

void registerEventSource(const std::string& source, const std::string& program) {
  HKEY made = nullptr;
  check(RegCreateKeyExA(HKEY_LOCAL_MACHINE, keyOf(source).c_str(), 0, nullptr, 0, KEY_SET_VALUE,
                        nullptr, &made, nullptr));
  const platform::ScopedRegistryKey key(made);
  check(RegSetValueExA(key.get(), "EventMessageFile", 0, REG_SZ,
                       reinterpret_cast<const BYTE*>(program.c_str()),
                       static_cast<DWORD>(program.size() + 1)));
  check(RegSetValueExA(key.get(), "TypesSupported", 0, REG_DWORD,
                       reinterpret_cast<const BYTE*>(&kTypes), sizeof kTypes));
}

void forgetEventSource(const std::string& source) {
  RegDeleteKeyA(HKEY_LOCAL_MACHINE, keyOf(source).c_str());
}

Log::Sink eventLogSink(const std::string& source) {
  HANDLE opened = RegisterEventSourceA(nullptr, source.c_str());
  if (opened == nullptr) check(static_cast<LONG>(GetLastError()));
  const std::shared_ptr<void> log(opened, DeregisterEventSource);
  return [log](Severity severity, const std::string& line) {
    const char* text = line.c_str();
    ReportEventA(log.get(), typeOf(severity), 0, kLine, nullptr, 1, 0, &text, nullptr);
  };
}

}  // namespace zelta::agent
