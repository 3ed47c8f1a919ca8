#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/control/control.h"
#include "agent/control/control_socket.h"
#include "agent/platform/stop_event_linux.h"
#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/socket_place_linux.h"

namespace zelta::agent {

namespace {

using platform::ScopedFd;

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr int kQueue = 8;  // clients that wait
constexpr std::chrono::seconds kAskLimit{1};
constexpr std::chrono::seconds kAnswerLimit{10};

[[noreturn]] void fail(const std::string& what, int error) {
  throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

[[noreturn]] void failForPath(const std::string& path) {
  fail("the control path '" + path + "' cannot be used", ENAMETOOLONG);
}

// A connect waits for its turn if other clients wait, too.
ScopedFd makeClient() {
  ScopedFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made.valid()) fail("no socket", errno);
  timeval limit{};
  limit.tv_sec = kAnswerLimit.count();
  setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return made;
}

bool isPassing(int error) { return error == EAGAIN || error == EINTR; }

// What comes until the end of the line or of the stream; none if neither comes in time, or if the
// line is too long.
std::optional<std::string> readLine(const ScopedFd& client, const StopEvent& stop) {
  const auto deadline = SteadyClock::now() + kAskLimit;
  std::string line;
  while (line.size() <= kLongestControlLine) {
    const StopEvent::Waited waited = stop.waitFor(client.get(), POLLIN, deadline);
    if (waited.reason != StopEvent::Reason::kReady) break;
    char c = 0;
    const ssize_t count = recv(client.get(), &c, 1, 0);
    if (count < 0 && isPassing(errno)) continue;
    if (count < 0) break;
    if (count == 0 || c == '\n') return line;
    line += c;
  }
  return std::nullopt;
}

// The folder of the control socket, made if it is missing.
ScopedFd openFolderOf(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::absolute(path).parent_path();
  std::error_code ignored;
  std::filesystem::create_directories(folder, ignored);
  ScopedFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.valid()) fail("the folder of the control path " + path, errno);
  return opened;
}

// Whether the path is a file's that is seen to be no socket.
bool isOtherFile(const std::string& path) {
  std::error_code unseen;
  const auto status = std::filesystem::status(path, unseen);
  return exists(status) && !is_socket(status);
}

// Connects to the first of the paths at which an agent listens.
ScopedFd connectToAgent(const std::vector<std::string>& paths) {
  std::string tried;
  std::string denied;
  for (const std::string& path : paths) {
    ScopedFd client = makeClient();
    const int error = platform::connectToPath(client, path);
    if (error == 0) return client;
    if (error == ENAMETOOLONG) failForPath(path);
    if (error == EACCES && !isOtherFile(path)) denied = path;
    if (error == EAGAIN) fail("the agent at " + path, error);
    tried += (tried.empty() ? "" : ", ") + path;
  }
  if (denied.empty()) throw NoAgentError("no agent is running at " + tried);
  throw std::runtime_error("permission denied at " + denied +
                           ": an agent answers its own user and root only; run this with sudo");
}

class SocketServer final : public ControlServer {
 public:
  SocketServer(const std::string& path, Handler handler, OnFailure onFailure)
      : place_(path),
        handler_(std::move(handler)),
        onFailure_(std::move(onFailure)),
        stop_("no event"),
        listener_(listenAt(path)) {
    try {
      thread_ = std::thread([this] { guarded(onFailure_, [this] { serve(); }); });
    } catch (...) {
      removePath();
      throw;
    }
  }

  ~SocketServer() override {
    removePath();
    stop_.stop();
    thread_.join();
  }

  void removePath() override {
    if (!removed_.exchange(true)) place_.release(folder_.get());
  }

 private:
  ScopedFd listenAt(const std::string& path) {
    if (!place_.fits()) failForPath(path);
    folder_ = openFolderOf(place_.path());
    platform::SocketPlace::Taken taken = place_.take(
        folder_.get(), kQueue,
        [](int folder, const char* name) { return fchmodat(folder, name, kOwnerOnly, 0) == 0; });
    if (taken.error == EADDRINUSE && place_.isAlive()) {
      throw std::runtime_error("another agent is running: it has the control path " + path);
    }
    if (taken.error != 0) fail("the control path " + path, taken.error);
    return std::move(taken.socket);
  }

  void serve() {
    for (;;) {
      const StopEvent::Waited waited = stop_.waitFor(listener_.get(), POLLIN);
      if (waited.reason == StopEvent::Reason::kStopped) return;
      if (waited.reason == StopEvent::Reason::kFailed) failToServe();
      const ScopedFd client(
          accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (client.valid()) {
        serveClient(client);
      } else if (!isPassing(errno) && errno != ECONNABORTED) {
        failToServe();
      }
    }
  }

  [[noreturn]] static void failToServe() {
    throw std::system_error(errno, std::generic_category(), "the control socket");
  }

  void serveClient(const ScopedFd& client) {
    const std::optional<std::string> line = readLine(client, stop_);
    if (!line) return;
    const std::string answer = handler_(*line);
    // Far shorter than what a socket takes without a reader.
    const ssize_t sent = send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    static_cast<void>(sent);  // a client that is gone needs no answer
  }

  platform::SocketPlace place_;
  const Handler handler_;
  const OnFailure onFailure_;
  const StopEvent stop_;
  ScopedFd folder_;
  const ScopedFd listener_;
  std::atomic<bool> removed_{false};
  std::thread thread_;
};

}  // namespace

std::vector<std::string> defaultControlPaths(std::uint32_t reader) {
  const std::string agent = "agent" + std::to_string(reader);
  std::vector<std::string> paths;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0') {
    paths.push_back(std::string(runtime) + "/zelta-" + agent + ".ctl");
  }
  paths.push_back("/run/zelta/" + agent + ".ctl");
  paths.push_back("/run/zelta-" + agent + "/control");
  return paths;
}

std::unique_ptr<ControlServer> openControlServer(const std::string& path,
                                                 ControlServer::Handler handler,
                                                 OnFailure onFailure) {
  return std::make_unique<SocketServer>(path, std::move(handler), std::move(onFailure));
}

std::string askAgent(const std::vector<std::string>& paths, const std::string& line) {
  const ScopedFd client = connectToAgent(paths);
  if (send(client.get(), line.data(), line.size(), MSG_NOSIGNAL) < 0) fail("the agent", errno);
  const StopEvent never;
  const auto deadline = SteadyClock::now() + kAnswerLimit;
  std::string answer;
  for (;;) {
    if (never.waitFor(client.get(), POLLIN, deadline).reason != StopEvent::Reason::kReady) {
      throw std::runtime_error("the agent gave no answer in time");
    }
    std::array<char, 1024> buffer{};
    const ssize_t count = recv(client.get(), buffer.data(), buffer.size(), 0);
    if (count == 0) return answer;
    if (count > 0) answer.append(buffer.data(), static_cast<std::size_t>(count));
    if (count < 0 && !isPassing(errno)) return answer;
  }
}

}  // namespace zelta::agent
