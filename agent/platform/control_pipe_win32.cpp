#include <windows.h>
// windows.h comes first
#include <sddl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/control/control_socket.h"
#include "agent/platform/pipe_connection_win32.h"
#include "contract/control.h"
#include "platform/process/scoped_handle_win32.h"

namespace zelta::agent {

namespace {

// Everything for the owner, who is the agent's user, and for the administrators; nobody else.
constexpr char kAccess[] = "D:P(A;;GA;;;OW)(A;;GA;;;BA)";
constexpr char kPipePrefix[] = "\\\\.\\pipe\\";
constexpr std::chrono::seconds kAskLimit{1};
constexpr std::chrono::seconds kAnswerLimit{10};

[[noreturn]] void fail(const std::string& what, DWORD error) {
  throw std::runtime_error(what + ": " + std::system_category().message(static_cast<int>(error)));
}

void checkName(const std::string& name) {
  if (name.rfind(kPipePrefix, 0) == 0 && name.size() > sizeof kPipePrefix - 1) return;
  throw std::runtime_error("the control path '" + name + "' cannot be used: not " + kPipePrefix +
                           "NAME");
}

// Throws if there is a pipe of that name.
void checkFree(const std::string& name) {
  constexpr DWORD kLeastWait = 1;
  // If all ends of the pipe are taken, wait for one.
  if (!WaitNamedPipeA(name.c_str(), kLeastWait) && GetLastError() != ERROR_SEM_TIMEOUT) return;
  throw std::runtime_error("another agent is running: it has the control path " + name);
}

// A further end for one client. The pipe takes an answer without a reader, who then finds it even
// if this end is gone.
platform::ScopedKernelHandle makeEnd(const std::string& name, bool first) {
  PSECURITY_DESCRIPTOR access = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(kAccess, SDDL_REVISION_1, &access,
                                                            nullptr)) {
    fail("the control path " + name, GetLastError());
  }
  const platform::ScopedLocalMemory freed(access);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, access, FALSE};
  if (first) checkFree(name);
  const DWORD once = first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
  HANDLE end =
      CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | once,
                       PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, PIPE_UNLIMITED_INSTANCES,
                       kLongestControlAnswer, kLongestControlLine, 0, &attributes);
  if (end != INVALID_HANDLE_VALUE) return platform::ScopedKernelHandle(end);
  const DWORD error = GetLastError();
  if (first) checkFree(name);  // another one may have been faster
  fail("the control path " + name, error);
}

// The agent's end of one client's connection. `stop` ends every wait.
class ClientEnd {
 public:
  ClientEnd(platform::ScopedKernelHandle pipe, HANDLE stop)
      : pipe_(std::move(pipe)), stop_(stop), done_(makeEvent()) {}

  // Waits for the client; false after `stop`.
  bool connect() {
    const auto begin = [this](OVERLAPPED* operation) {
      return ConnectNamedPipe(pipe_.get(), operation) != FALSE;
    };
    run(begin, std::nullopt);  // fails at once if the client is there already
    return WaitForSingleObject(stop_, 0) != WAIT_OBJECT_0;
  }

  // One line; none if its end does not come in time, or if it is too long.
  std::optional<std::string> readLine() {
    const auto deadline = SteadyClock::now() + kAskLimit;
    std::string line;
    while (line.size() <= kLongestControlLine) {
      char c = 0;
      const auto begin = [&](OVERLAPPED* operation) {
        return ReadFile(pipe_.get(), &c, 1, nullptr, operation) != FALSE;
      };
      if (!run(begin, deadline)) break;
      if (c == '\n') return line;
      line += c;
    }
    return std::nullopt;
  }

  void write(const std::string& text) {
    const auto begin = [&](OVERLAPPED* operation) {
      return WriteFile(pipe_.get(), text.data(), static_cast<DWORD>(text.size()), nullptr,
                       operation) != FALSE;
    };
    run(begin, SteadyClock::now() + kAskLimit);  // a client that is gone needs no answer
  }

 private:
  // Begins an operation and waits for its end; true if it succeeded.
  template <typename Begin>
  bool run(const Begin& begin, std::optional<SteadyClock::time_point> deadline) {
    OVERLAPPED operation{};
    operation.hEvent = done_.get();
    ResetEvent(done_.get());
    if (!begin(&operation) && GetLastError() != ERROR_IO_PENDING) return false;
    const std::array<HANDLE, 2> events = {done_.get(), stop_};
    const DWORD reason = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(),
                                                FALSE, millisecondsUntil(deadline));
    if (reason != WAIT_OBJECT_0) CancelIoEx(pipe_.get(), &operation);
    DWORD count = 0;
    return GetOverlappedResult(pipe_.get(), &operation, &count, TRUE) != FALSE;
  }

  const platform::ScopedKernelHandle pipe_;
  const HANDLE stop_;
  const platform::ScopedKernelHandle done_;
};

class PipeServer final : public ControlServer {
 public:
  PipeServer(std::string name, Handler handler, OnFailure onFailure)
      : name_((checkName(name), std::move(name))),
        handler_(std::move(handler)),
        onFailure_(std::move(onFailure)),
        stop_(makeEvent()),
        next_(makeEnd(name_, true)),
        thread_([this] { guarded(onFailure_, [this] { serve(); }); }) {}

  ~PipeServer() override {
    SetEvent(stop_.get());
    thread_.join();
  }

  void removePath() override { SetEvent(stop_.get()); }

 private:
  void serve() {
    for (;;) {
      ClientEnd client(std::move(next_), stop_.get());
      if (!client.connect()) return;
      next_ = makeEnd(name_, false);  // the name stays, and is nobody else's
      const std::optional<std::string> line = client.readLine();
      if (line) client.write(handler_(*line));
    }
  }

  const std::string name_;
  const Handler handler_;
  const OnFailure onFailure_;
  const platform::ScopedKernelHandle stop_;  // stays signalled
  platform::ScopedKernelHandle next_;        // for the thread only
  std::thread thread_;
};

// An end of the pipe of that name; waits while others have it. None if there is no such pipe.
platform::ScopedKernelHandle openPipe(const std::string& name, SteadyClock::time_point deadline) {
  // The agent may learn who asks, but not act in their name.
  constexpr DWORD kFlags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
  for (;;) {
    HANDLE pipe = CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              kFlags, nullptr);
    if (pipe != INVALID_HANDLE_VALUE) return platform::ScopedKernelHandle(pipe);
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND) return {};
    if (error == ERROR_ACCESS_DENIED) {
      throw std::runtime_error("permission denied at " + name +
                               ": an agent answers its own user and administrators; run this as "
                               "administrator");
    }
    if (error != ERROR_PIPE_BUSY) fail("the agent at " + name, error);
    if (SteadyClock::now() >= deadline) throw std::runtime_error("the agent is busy");
    WaitNamedPipeA(name.c_str(), std::max<DWORD>(1, millisecondsUntil(deadline)));
  }
}

std::string exchange(platform::ScopedKernelHandle pipe, const std::string& line,
                     SteadyClock::time_point deadline) {
  NamedPipeConnection agent(std::move(pipe));
  agent.post(line.data(), static_cast<std::uint32_t>(line.size()), deadline);
  std::string answer;
  for (char c = 0; answer.size() <= kLongestControlAnswer; answer += c) {
    const IoResult result = agent.read(&c, 1, deadline);
    if (result == IoResult::kTimedOut) {
      throw std::runtime_error("the agent gave no answer in time");
    }
    if (result != IoResult::kDone) return answer;
  }
  throw std::runtime_error("the agent's answer is too long");
}

}  // namespace

std::unique_ptr<ControlServer> openControlServer(
    const std::string& path, ControlServer::Handler handler, OnFailure onFailure,
    const std::string& /*link*/,
    // NOLINTNEXTLINE(performance-unnecessary-value-param): as on Linux
    OpenFeed /*openFeed*/) {
  return std::make_unique<PipeServer>(path, std::move(handler), std::move(onFailure));
}

std::string askAgent(const std::vector<std::string>& paths, const std::string& line) {
  const auto deadline = SteadyClock::now() + kAnswerLimit;
  std::string tried;
  for (const std::string& path : paths) {
    checkName(path);
    if (platform::ScopedKernelHandle pipe = openPipe(path, deadline)) {
      return exchange(std::move(pipe), line, deadline);
    }
    tried += (tried.empty() ? "" : ", ") + path;
  }
  throw NoAgentError("no agent is running at " + tried);
}

}  // namespace zelta::agent
