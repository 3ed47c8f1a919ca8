#include "agent/platform/service_win32.h"

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "agent/platform/event_log_win32.h"
#include "agent/platform/pipe_connection_win32.h"
#include "platform/process/never_destroyed.h"
#include "platform/process/scoped_handle_win32.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

namespace {

constexpr char kAccount[] = "NT AUTHORITY\\LocalService";
// Milliseconds until a service that has failed is started again.
constexpr DWORD kRestartAfter = 2000;
// Seconds without a failure after which failures are counted from the first again.
constexpr DWORD kForgetFailures = 60;
// The most milliseconds that the agent takes to end; AgentRun has a limit of 2 seconds.
constexpr DWORD kEndLimit = 5000;
constexpr DWORD kRemoveLimit = 10000;

[[noreturn]] void fail(const std::string& what) {
  const DWORD error = GetLastError();
  const char* advice = error == ERROR_ACCESS_DENIED ? "; run this as administrator" : "";
  throw std::runtime_error(what + ": " + std::system_category().message(static_cast<int>(error)) +
                           advice);
}

platform::ScopedService openManager(DWORD access) {
  platform::ScopedService manager(OpenSCManagerA(nullptr, nullptr, access));
  if (!manager) fail("the service manager");
  return manager;
}

std::string programPath() {
  std::array<char, 32768> path{};
  const DWORD size = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
  if (size == 0 || size == path.size()) fail("the program's path");
  return path.data();
}

void configure(SC_HANDLE service, const std::string& what) {
  std::string description = "Keeps the smart card of a Zelta virtual reader.";
  SERVICE_DESCRIPTIONA described{description.data()};
  SC_ACTION restart{SC_ACTION_RESTART, kRestartAfter};
  SERVICE_FAILURE_ACTIONSA onFailure{kForgetFailures, nullptr, nullptr, 1, &restart};
  if (!ChangeServiceConfig2A(service, SERVICE_CONFIG_DESCRIPTION, &described) ||
      !ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS, &onFailure)) {
    fail(what);
  }
  // Restarts the service also if it ends with an error. A system that does not know that (Wine)
  // restarts it only if it crashes.
  SERVICE_FAILURE_ACTIONS_FLAG alsoIfItEnds{TRUE};
  ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &alsoIfItEnds);
}

void CALLBACK onStopped(void*) {}  // its only effect is to end the wait

// Waits until the service has ended. `notice` outlives the service's handle.
void stopService(SC_HANDLE service, SERVICE_NOTIFYW& notice, const std::string& what) {
  notice.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
  notice.pfnNotifyCallback = onStopped;
  SERVICE_STATUS ignored{};
  if (!ControlService(service, SERVICE_CONTROL_STOP, &ignored)) {
    if (GetLastError() == ERROR_SERVICE_NOT_ACTIVE) return;
    fail(what);
  }
  // The notice comes at once if the service has already ended.
  if (NotifyServiceStatusChangeW(service, SERVICE_NOTIFY_STOPPED, &notice) != ERROR_SUCCESS ||
      SleepEx(kRemoveLimit, TRUE) != WAIT_IO_COMPLETION) {
    throw std::runtime_error(what + " does not stop");
  }
}

// One service in this process, from the manager's start of it to its end.
class RunningService final : public ServiceRun {
 public:
  RunningService(std::string name, std::function<int(ServiceRun&)> body)
      : name_(std::move(name)), body_(std::move(body)), end_(makeEvent()) {}

  // On a thread of the manager's.
  void run() {
    handle_ = RegisterServiceCtrlHandlerExA(name_.c_str(), onControl, this);
    report(SERVICE_START_PENDING, 0);
    exitCode_ = body_(*this);
    report(SERVICE_STOPPED, exitCode_);
  }

  HANDLE endRequested() const override { return end_.get(); }
  void ready() override { report(SERVICE_RUNNING, 0); }
  void endProcess(int exitCode) override {
    report(SERVICE_STOPPED, exitCode);
    std::_Exit(exitCode);
  }

  const std::string& name() const { return name_; }
  int exitCode() const { return exitCode_; }

 private:
  static DWORD WINAPI onControl(DWORD control, DWORD, void*, void* context) {
    switch (control) {
      case SERVICE_CONTROL_STOP:
      case SERVICE_CONTROL_SHUTDOWN:
        static_cast<RunningService*>(context)->requestEnd();
        return NO_ERROR;
      case SERVICE_CONTROL_INTERROGATE:  // the manager knows the last report
        return NO_ERROR;
      default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
  }

  void requestEnd() {
    report(SERVICE_STOP_PENDING, 0);
    SetEvent(end_.get());
  }

  void report(DWORD state, int exitCode) {
    const platform::MutexLock lock(mutex_);
    if (state_ == SERVICE_STOPPED) return;  // it may be stopped while it ends by itself
    state_ = state;
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    if (state == SERVICE_RUNNING) {
      status.dwControlsAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    }
    if (exitCode != 0) {
      status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
      status.dwServiceSpecificExitCode = static_cast<DWORD>(exitCode);
    }
    const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    if (pending) status.dwWaitHint = kEndLimit;
    SetServiceStatus(handle_, &status);
  }

  const std::string name_;
  const std::function<int(ServiceRun&)> body_;
  const platform::ScopedKernelHandle end_;  // stays signalled
  SERVICE_STATUS_HANDLE handle_ = nullptr;
  platform::Mutex mutex_;
  DWORD state_ ZELTA_GUARDED_BY(mutex_) = SERVICE_START_PENDING;
  int exitCode_ = 0;
};

RunningService* running = nullptr;  // the manager passes no context to `serviceMain`

void WINAPI serviceMain(DWORD, char**) { running->run(); }

}  // namespace

std::string serviceName(std::uint32_t reader) { return "ZeltaAgent" + std::to_string(reader); }

std::string commandLine(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    line += line.empty() ? "\"" : " \"";
    std::size_t backslashes = 0;
    for (const char c : word) {
      // Only backslashes before a quotation mark are doubled; one more escapes the mark.
      if (c == '"') line.append(backslashes + 1, '\\');
      backslashes = c == '\\' ? backslashes + 1 : 0;
      line += c;
    }
    line.append(backslashes, '\\');
    line += '"';
  }
  return line;
}

void installService(const Options& options) {
  const std::string name = serviceName(options.reader);
  const std::string what = "the service " + name;
  const std::string program = programPath();
  std::vector<std::string> words = {program, "service", "run"};
  for (std::string& word : argumentsOf(options)) words.push_back(std::move(word));
  const std::string display = "Zelta agent of reader " + std::to_string(options.reader);

  const platform::ScopedService manager = openManager(SC_MANAGER_CREATE_SERVICE);
  const platform::ScopedService service(CreateServiceA(
      manager.get(), name.c_str(), display.c_str(), SERVICE_CHANGE_CONFIG | SERVICE_START | DELETE,
      SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
      commandLine(words).c_str(), nullptr, nullptr, nullptr, kAccount, nullptr));
  if (!service) fail(what);
  try {
    configure(service.get(), what);
    registerEventSource(name, program);
  } catch (...) {
    DeleteService(service.get());
    throw;
  }
}

void removeService(std::uint32_t reader) {
  const std::string name = serviceName(reader);
  const std::string what = "the service " + name;
  SERVICE_NOTIFYW notice{};
  const platform::ScopedService manager = openManager(SC_MANAGER_CONNECT);
  const platform::ScopedService service(
      OpenServiceA(manager.get(), name.c_str(), SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
  if (!service) fail(what);
  stopService(service.get(), notice, what);
  if (!DeleteService(service.get())) fail(what);
  forgetEventSource(name);
}

int runService(std::uint32_t reader, std::function<int(ServiceRun&)> body) {
  // The manager releases this thread as soon as the service has reported that it has stopped. The
  // service's own thread may still be in the object then.
  static platform::NeverDestroyed<RunningService> service(serviceName(reader), std::move(body));
  running = &service.get();
  std::string name = running->name();
  const std::array<SERVICE_TABLE_ENTRYA, 2> services = {{{name.data(), serviceMain}, {}}};
  if (StartServiceCtrlDispatcherA(services.data())) return running->exitCode();
  if (GetLastError() != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) fail("the service " + name);
  throw std::runtime_error(
      "service run is for the service manager; to start the service: sc start " + name);
}

}  // namespace zelta::agent
