#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/control/control.h"
#include "agent/control/control_socket.h"
#include "agent/platform/pipe_connection_linux.h"
#include "platform/files/scoped_fd_linux.h"

namespace zelta::agent {

namespace {

using platform::ScopedFd;

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr int kWaiting = 8;  // clients in the queue
constexpr std::chrono::seconds kAskLimit{1};
constexpr std::chrono::seconds kAnswerLimit{10};

[[noreturn]] void fail(const std::string& what, int error) {
  throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    fail("the control path '" + path + "' cannot be used", ENAMETOOLONG);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

ScopedFd makeSocket(int flags) {
  ScopedFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (!made.valid()) fail("no socket", errno);
  return made;
}

// Waits for its turn where other clients wait, too.
ScopedFd makeClient() {
  ScopedFd made = makeSocket(0);
  timeval limit{};
  limit.tv_sec = kAnswerLimit.count();
  setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return made;
}

// 0 or the error number.
int connectTo(const ScopedFd& client, const std::string& path) {
  const sockaddr_un address = addressOf(path);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  return connect(client.get(), generic, sizeof address) == 0 ? 0 : errno;
}

// Connecting to any other file fails in the same way as to a socket that a dead agent left.
bool isSocket(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// Whether it became readable in time, as opposed to `cancel` or the deadline.
bool waitReadable(int fd, int cancel, SteadyClock::time_point deadline) {
  for (;;) {
    std::array<pollfd, 2> waits{{{cancel, POLLIN, 0}, {fd, POLLIN, 0}}};
    const int ready = poll(waits.data(), waits.size(), pollTimeout(deadline));
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && waits[0].revents == 0;
  }
}

// Appends what comes until the end of the line or of the stream; false where neither is reached.
bool readLine(int fd, int cancel, SteadyClock::time_point deadline, std::string* line) {
  while (line->size() <= kLongestControlLine) {
    if (!waitReadable(fd, cancel, deadline)) return false;
    char c = 0;
    const ssize_t count = recv(fd, &c, 1, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (count < 0) return false;
    if (count == 0 || c == '\n') return true;
    *line += c;
  }
  return false;
}

// Gives the path to the listener, unless a live agent has it. Where it throws, the path is as it
// was or free.
void bindExclusively(const std::string& path, const ScopedFd& listener) {
  const std::filesystem::path folder = std::filesystem::absolute(path).parent_path();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  // Two agents that start at the same time must not both find the path free.
  const ScopedFd lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock.valid()) fail("the folder of the control path " + path, errno);
  flock(lock.get(), LOCK_EX);
  const ScopedFd probe = makeSocket(SOCK_NONBLOCK);
  const int answer = connectTo(probe, path);
  if (answer == 0 || answer == EAGAIN) {
    throw std::runtime_error("another agent is running: it has the control path " + path);
  }
  if (answer == ECONNREFUSED && isSocket(path)) unlink(path.c_str());
  const sockaddr_un address = addressOf(path);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  // The socket's path takes this mode over, so that it never lies open to others.
  fchmod(listener.get(), kOwnerOnly);
  if (bind(listener.get(), generic, sizeof address) != 0) fail("the control path " + path, errno);
  if (listen(listener.get(), kWaiting) != 0) {
    const int reason = errno;
    unlink(path.c_str());
    fail("the control path " + path, reason);
  }
}

// Errors of accepting a client that are the client's own or have passed.
bool isPassing(int error) { return error == EAGAIN || error == EINTR || error == ECONNABORTED; }

class SocketServer final : public ControlServer {
 public:
  SocketServer(std::string path, Handler handler, OnFailure onFailure)
      : path_(std::move(path)),
        handler_(std::move(handler)),
        onFailure_(std::move(onFailure)),
        cancel_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
        listener_(makeSocket(SOCK_NONBLOCK)) {
    if (!cancel_.valid()) fail("no event", errno);
    bindExclusively(path_, listener_);
    try {
      thread_ = std::thread([this] { guarded(onFailure_, [this] { serve(); }); });
    } catch (...) {
      removePath();
      throw;
    }
  }

  ~SocketServer() override {
    removePath();
    eventfd_write(cancel_.get(), 1);
    thread_.join();
  }

  void removePath() override {
    if (!removed_.exchange(true)) unlink(path_.c_str());
  }

 private:
  void serve() {
    for (;;) {
      std::array<pollfd, 2> waits{{{cancel_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}}};
      if (poll(waits.data(), waits.size(), -1) < 0) {
        if (errno == EINTR) continue;
        throw std::system_error(errno, std::generic_category(), "the control socket");
      }
      if (waits[0].revents != 0) return;
      if (waits[1].revents == 0) continue;
      const ScopedFd client(
          accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (client.valid()) {
        serveClient(client);
      } else if (!isPassing(errno)) {
        throw std::system_error(errno, std::generic_category(), "the control socket");
      }
    }
  }

  void serveClient(const ScopedFd& client) {
    std::string line;
    if (!readLine(client.get(), cancel_.get(), SteadyClock::now() + kAskLimit, &line)) return;
    const std::string answer = handler_(line);
    // Far shorter than what a socket takes without a reader.
    const ssize_t sent = send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    static_cast<void>(sent);  // a client that is gone needs no answer
  }

  const std::string path_;
  const Handler handler_;
  const OnFailure onFailure_;
  const ScopedFd cancel_;
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
  ScopedFd client;
  int error = ENOENT;
  for (const std::string& path : paths) {
    client = makeClient();
    error = connectTo(client, path);
    if (error == 0) break;
  }
  if (error == ENOENT || error == ECONNREFUSED) {
    throw std::runtime_error("no agent is running at " + paths.front());
  }
  if (error != 0) fail("the agent at " + paths.front(), error);
  if (send(client.get(), line.data(), line.size(), MSG_NOSIGNAL) < 0) fail("the agent", errno);
  const ScopedFd never(eventfd(0, EFD_CLOEXEC));
  const auto deadline = SteadyClock::now() + kAnswerLimit;
  std::string answer;
  for (;;) {
    if (!waitReadable(client.get(), never.get(), deadline)) {
      throw std::runtime_error("the agent gave no answer in time");
    }
    std::array<char, 1024> buffer{};
    const ssize_t count = recv(client.get(), buffer.data(), buffer.size(), 0);
    if (count == 0) return answer;
    if (count > 0) answer.append(buffer.data(), static_cast<std::size_t>(count));
    if (count < 0 && errno != EAGAIN && errno != EINTR) return answer;
  }
}

}  // namespace zelta::agent
