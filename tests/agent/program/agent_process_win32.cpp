#include "tests/agent/program/agent_process_win32.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace zelta::test {

using agent::ScopedHandle;

namespace {

struct Pipe {
  Pipe() {
    SECURITY_ATTRIBUTES inherited = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readHandle = nullptr;
    HANDLE writeHandle = nullptr;
    if (!CreatePipe(&readHandle, &writeHandle, &inherited, 0)) throw std::runtime_error("no pipe");
    readEnd.reset(readHandle);
    writeEnd.reset(writeHandle);
    SetHandleInformation(readHandle, HANDLE_FLAG_INHERIT, 0);
  }
  ScopedHandle readEnd;
  ScopedHandle writeEnd;
};

std::string programPath() {
  std::array<char, 1024> own{};
  GetModuleFileNameA(nullptr, own.data(), static_cast<DWORD>(own.size()));
  const std::string path = own.data();
  return path.substr(0, path.find_last_of("\\/") + 1) + "zelta-agent.exe";
}

// The next character but for carriage returns; false at the end.
bool readCharacter(const ScopedHandle& from, char* c) {
  DWORD count = 0;
  do {
    if (!ReadFile(from.get(), c, 1, &count, nullptr) || count == 0) return false;
  } while (*c == '\r');
  return true;
}

BOOL WINAPI passOver(DWORD /*event*/) { return TRUE; }

}  // namespace

AgentProcess::AgentProcess(const std::vector<std::string>& arguments) {
  std::string commandLine = "\"" + programPath() + "\"";
  for (const std::string& argument : arguments) commandLine += " \"" + argument + "\"";
  Pipe output;
  Pipe error;
  STARTUPINFOA start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = output.writeEnd.get();
  start.hStdError = error.writeEnd.get();
  PROCESS_INFORMATION made{};
  if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                      nullptr, nullptr, &start, &made)) {
    throw std::runtime_error("cannot start " + commandLine);
  }
  CloseHandle(made.hThread);
  process_.reset(made.hProcess);
  id_ = made.dwProcessId;
  output_ = std::move(output.readEnd);
  error_ = std::move(error.readEnd);
  outputReader_ = std::thread([this] {
    char c = 0;
    while (readCharacter(output_, &c)) ended_.output += c;
  });
  errorReader_ = std::thread([this] { readError(); });
}

AgentProcess::~AgentProcess() {
  if (!outputReader_.joinable()) return;
  TerminateProcess(process_.get(), 1);
  wait();
}

bool AgentProcess::pressControlC() {
  FreeConsole();
  if (!AttachConsole(id_)) return false;
  // Everybody on the console learns of it, this program too.
  SetConsoleCtrlHandler(passOver, TRUE);
  const bool pressed = GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0) != FALSE;
  FreeConsole();
  return pressed;
}

Ended AgentProcess::wait() {
  WaitForSingleObject(process_.get(), INFINITE);
  if (outputReader_.joinable()) outputReader_.join();
  if (errorReader_.joinable()) errorReader_.join();
  GetExitCodeProcess(process_.get(), &ended_.exitCode);
  return ended_;
}

void AgentProcess::readError() {
  const agent::Log::Sink sink = lines_.sink();
  std::string line;
  char c = 0;
  while (readCharacter(error_, &c)) {
    ended_.error += c;
    if (c != '\n') {
      line += c;
      continue;
    }
    sink(agent::LogLevel::kInfo, line);
    line.clear();
  }
}

Ended runProgram(const std::vector<std::string>& arguments) {
  return AgentProcess(arguments).wait();
}

}  // namespace zelta::test
