// The agent as a service, with the system's own service manager.
#include "agent/platform/service_win32.h"

#include <windows.h>
// windows.h comes first
#include <shellapi.h>

#include <algorithm>
#include <array>
#include <memory>
#include <type_traits>

#include "contract/control.h"
#include "tests/agent/program/program_fixture.h"

namespace zelta::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint32_t kReader = 4000000002u;

struct ServiceCloser {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ScopedService = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceCloser>;

class AgentService : public Program {
 protected:
  ~AgentService() override {
    if (open()) removeIt();
  }

  static ScopedService open() {
    const ScopedService manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    return ScopedService(
        OpenServiceA(manager.get(), agent::serviceName(kReader).c_str(), SERVICE_ALL_ACCESS));
  }
  Ended install(const std::string& text = kPlain) {
    std::ofstream(folder_.file("a script"), std::ios::binary) << text;
    return runProgram({"service", "install", "--reader", std::to_string(kReader), "--backend",
                       "script", "--script", folder_.file("a script"), "--session-id", kSession});
  }
  static Ended removeIt() {
    return runProgram({"service", "remove", "--reader", std::to_string(kReader)});
  }
  static Ended ctl(const std::string& what) {
    return runProgram({"ctl", what, "--reader", std::to_string(kReader)});
  }
  // Waits until the service is in that state.
  static SERVICE_STATUS_PROCESS await(const ScopedService& service, DWORD notice) {
    SERVICE_NOTIFYW notify{};
    notify.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    notify.pfnNotifyCallback = [](void*) {};
    EXPECT_EQ(NotifyServiceStatusChangeW(service.get(), notice, &notify),
              static_cast<DWORD>(ERROR_SUCCESS));
    SleepEx(INFINITE, TRUE);
    return notify.ServiceStatus;
  }
  static SERVICE_STATUS_PROCESS stop(const ScopedService& service) {
    SERVICE_STATUS status{};
    EXPECT_TRUE(ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    return await(service, SERVICE_NOTIFY_STOPPED);
  }
};

TEST_F(AgentService, Installed_RunsUnderLocalServiceFromTheSystemsStart) {
  const Ended installed = install();
  EXPECT_EQ(installed.exitCode, 0) << installed.text;
  const ScopedService service = open();
  ASSERT_TRUE(service) << GetLastError();
  std::array<std::uint64_t, 1024> buffer{};
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buffer.data());
  DWORD needed = 0;
  ASSERT_TRUE(QueryServiceConfigA(service.get(), config, sizeof buffer, &needed));
  EXPECT_EQ(config->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(config->dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
  EXPECT_STREQ(config->lpServiceStartName, "NT AUTHORITY\\LocalService");
  EXPECT_STREQ(config->lpDisplayName, "Zelta agent of reader 4000000002");
  EXPECT_THAT(config->lpBinaryPathName, StartsWith("\""));
  EXPECT_THAT(config->lpBinaryPathName,
              HasSubstr("zelta-agent.exe\" \"service\" \"run\" \"--reader=4000000002\""));
  EXPECT_THAT(config->lpBinaryPathName,
              HasSubstr(" \"--script=" + folder_.file("a script") + "\""));
}

TEST_F(AgentService, Started_ServesTheDriverAndCtlUntilItIsStopped) {
  DriverEnd driver(kReader);
  ASSERT_EQ(install().exitCode, 0);
  const ScopedService service = open();
  ASSERT_TRUE(StartServiceA(service.get(), 0, nullptr)) << GetLastError();
  const SERVICE_STATUS_PROCESS started = await(service, SERVICE_NOTIFY_RUNNING);
  EXPECT_EQ(started.dwControlsAccepted,
            static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN));
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_THAT(ctl("status").text, HasSubstr("driver:    connected\n"));
  EXPECT_EQ(ctl("remove").exitCode, 0);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  const SERVICE_STATUS_PROCESS stopped = stop(service);
  EXPECT_EQ(stopped.dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
  EXPECT_TRUE(driver.waitForDrop());
  EXPECT_THAT(ctl("status").text,
              EndsWith("; to start the service: sc start ZeltaAgent4000000002\n"));
}

TEST_F(AgentService, CommandOfTheCardThatBlocks_DoesNotHoldUpTheStop) {
  DriverEnd driver(kReader);
  ASSERT_EQ(install(kSlow).exitCode, 0);
  const ScopedService service = open();
  ASSERT_TRUE(StartServiceA(service.get(), 0, nullptr)) << GetLastError();
  driver.acceptSession();
  EXPECT_TRUE(driver.sendTransmit(kSelect));
  await(service, SERVICE_NOTIFY_RUNNING);
  EXPECT_EQ(stop(service).dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
}

TEST_F(AgentService, AgentThatFails_StopsWithItsExitCode) {
  ASSERT_EQ(install("atr 3B00\njump\n").exitCode, 0);
  const ScopedService service = open();
  StartServiceA(service.get(), 0, nullptr);
  const SERVICE_STATUS_PROCESS stopped = await(service, SERVICE_NOTIFY_STOPPED);
  EXPECT_EQ(stopped.dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_SPECIFIC_ERROR));
  EXPECT_EQ(stopped.dwServiceSpecificExitCode, 1u);
}

TEST_F(AgentService, Removed_IsStoppedAndGoneWithItsEventSource) {
  const std::string source =
      "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + agent::serviceName(kReader);
  const auto hasSource = [&] {
    return RegGetValueA(HKEY_LOCAL_MACHINE, source.c_str(), "EventMessageFile", RRF_RT_REG_SZ,
                        nullptr, nullptr, nullptr) == ERROR_SUCCESS;
  };
  ASSERT_EQ(install().exitCode, 0);
  EXPECT_TRUE(hasSource());
  {
    const ScopedService service = open();
    ASSERT_TRUE(StartServiceA(service.get(), 0, nullptr)) << GetLastError();
    await(service, SERVICE_NOTIFY_RUNNING);
  }
  const Ended removed = removeIt();
  EXPECT_EQ(removed.exitCode, 0) << removed.text;
  EXPECT_FALSE(open());
  EXPECT_FALSE(hasSource());
  EXPECT_THAT(ctl("status").text, HasSubstr("no agent is running at "));
}

TEST_F(AgentService, InstalledTwice_IsRefused) {
  ASSERT_EQ(install().exitCode, 0);
  const Ended again = install();
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_THAT(again.text, StartsWith("zelta-agent: the service ZeltaAgent4000000002: "));
  EXPECT_TRUE(open());
}

TEST_F(AgentService, RemovedWhereThereIsNone_IsRefused) {
  const Ended ended = removeIt();
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.text, StartsWith("zelta-agent: the service ZeltaAgent4000000002: "));
}

TEST_F(AgentService, RunInAConsole_IsRefusedWithAdvice) {
  const Ended ended = runProgram(script(kPlain, {"service", "run"}));
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_EQ(ended.text,
            "zelta-agent: service run is for the service manager; to start the service: sc start "
            "ZeltaAgent0\n");
}

TEST(AgentEvent, Text_IsTheLineOfTheLog) {
  const HMODULE program = LoadLibraryExA(ZELTA_AGENT_PROGRAM, nullptr, LOAD_LIBRARY_AS_DATAFILE);
  ASSERT_NE(program, nullptr) << GetLastError();
  std::array<char, 100> text{};
  std::string line = "Ending: asked to stop";
  std::array<DWORD_PTR, 1> inserts = {reinterpret_cast<DWORD_PTR>(line.data())};
  EXPECT_NE(FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, program, 1,
                           0, text.data(), static_cast<DWORD>(text.size()),
                           reinterpret_cast<va_list*>(inserts.data())),
            0u)
      << GetLastError();
  EXPECT_EQ(text.data(), line + "\r\n");
  FreeLibrary(program);
}

TEST(CommandLine, Words_ComeOutAsTheyWentIn) {
  const std::vector<std::string> words = {
      "C:\\a b\\agent.exe", "",          "--script=C:\\a b\\", "--pcsc-reader=A \"big\" one", "\\",
      "a\\\\\"b",           "\\\\host\\"};
  const std::string line = agent::commandLine(words);
  int count = 0;
  wchar_t** split = CommandLineToArgvW(std::wstring(line.begin(), line.end()).c_str(), &count);
  ASSERT_EQ(static_cast<std::size_t>(count), words.size()) << line;
  for (std::size_t i = 0; i < words.size(); ++i) {
    EXPECT_EQ(std::wstring(split[i]), std::wstring(words[i].begin(), words[i].end()));
  }
  LocalFree(split);
}

}  // namespace
}  // namespace zelta::test
