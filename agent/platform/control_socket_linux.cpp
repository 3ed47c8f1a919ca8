// Not sd-event: a thread each for the socket and for a trace that is followed, which wait for two
// or three descriptors in one place; as a loop's callbacks they would be longer.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/control/control_socket.h"
#include "agent/platform/stop_event_linux.h"
#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/ask_socket_linux.h"
#include "platform/pipe/socket_place_linux.h"

namespace zelta::agent {

namespace {

namespace fs = std::filesystem;
using platform::ScopedFd;

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr fs::perms kOpenFolder{0755};
constexpr int kQueue = 8;  // clients that wait
constexpr std::chrono::seconds kAskLimit{1};
constexpr std::chrono::seconds kAnswerLimit{10};

[[noreturn]] void fail(const std::string& what, int error) {
  throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

[[noreturn]] void failForPath(const std::string& path) {
  fail("the control path '" + path + "' cannot be used", ENAMETOOLONG);
}

bool isPassing(int error) { return error == EAGAIN || error == EINTR; }

// One line, ended by a line break or the end of the stream; none if neither comes in time, or if
// the line is too long.
std::optional<std::string> readLine(const ScopedFd& client, const StopEvent& stop) {
  const auto deadline = SteadyClock::now() + kAskLimit;
  std::string line;
  while (line.size() <= kLongestControlLine) {
    char c = 0;
    const ssize_t count = recv(client.get(), &c, 1, 0);
    if (count == 0 || (count > 0 && c == '\n')) return line;
    if (count > 0) {
      line += c;
    } else if (!isPassing(errno) ||
               stop.waitFor(client.get(), POLLIN, deadline).reason != StopEvent::Reason::kReady) {
      break;
    }
  }
  return std::nullopt;
}

// The folder of the control socket, made if it is missing.
ScopedFd openFolderOf(const std::string& path) {
  const fs::path folder = fs::absolute(path).parent_path();
  std::error_code ignored;
  fs::create_directories(folder, ignored);
  ScopedFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.valid()) fail("the folder of the control path " + path, errno);
  return opened;
}

// A symbolic link to `target` while this object lives; none if the link cannot be made.
class ScopedLink {
 public:
  ScopedLink(std::string path, const fs::path& target)
      : path_(std::move(path)), target_(fs::absolute(target)) {
    if (path_.empty()) return;
    std::error_code failed;
    const std::string unready = path_ + "~";
    const fs::path folder = fs::path(path_).parent_path();
    // The driver's pipes will be in this folder, so its rights must not depend on this process's
    // umask.
    if (fs::create_directories(folder, failed)) fs::permissions(folder, kOpenFolder, failed);
    fs::remove(unready, failed);
    fs::create_symlink(target_, unready, failed);
    if (!failed) fs::rename(unready, path_, failed);
  }
  ~ScopedLink() { remove(); }
  ScopedLink(const ScopedLink&) = delete;
  ScopedLink& operator=(const ScopedLink&) = delete;

  // Removes the link if it is still this object's. May be repeated.
  void remove() const {
    std::error_code failed;
    if (fs::read_symlink(path_, failed) == target_) fs::remove(path_, failed);
  }

 private:
  const std::string path_;
  const fs::path target_;
};

// True if the path is known to be a file and not a socket.
bool isOtherFile(const std::string& path) {
  std::error_code unseen;
  const auto status = fs::status(path, unseen);
  return exists(status) && !is_socket(status);
}

// Sends one client its trace, on its own thread. Ends when the client leaves or sends anything
// more, or with `stop`.
class FedClient {
 public:
  FedClient(ScopedFd client, const StopEvent& stop, const OpenFeed& openFeed,
            const std::string& line, const OnFailure& onFailure)
      : client_(std::move(client)),
        stop_(stop),
        wake_(checkedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
        feed_(openFeed(line, [this] { eventfd_write(wake_.get(), 1); })),
        thread_([this, &onFailure] {
          guarded(onFailure, [this] { serve(); });
          feed_.reset();
          shutdown(client_.get(), SHUT_RDWR);
          ended_ = true;
        }) {}
  ~FedClient() { thread_.join(); }
  FedClient(const FedClient&) = delete;
  FedClient& operator=(const FedClient&) = delete;

  bool ended() const { return ended_; }

 private:
  void serve() {
    for (std::string text = kControlOk + feed_->take(); sendAll(text); text = feed_->take()) {
      if (!waitForMore()) return;
    }
  }

  bool sendAll(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = send(client_.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (sent >= 0) {
        text.remove_prefix(static_cast<std::size_t>(sent));
      } else if (!isPassing(errno) ||
                 stop_.waitFor(client_.get(), POLLOUT).reason != StopEvent::Reason::kReady) {
        return false;
      }
    }
    return true;
  }

  // Waits until there is something to send; false if the client has left or on `stop`.
  bool waitForMore() {
    std::array<pollfd, 3> waited = {
        {{wake_.get(), POLLIN, 0}, {client_.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}}};
    while (poll(waited.data(), waited.size(), -1) < 0) {
      if (errno != EINTR) return false;
    }
    eventfd_t count = 0;
    eventfd_read(wake_.get(), &count);
    return waited[1].revents == 0 && waited[2].revents == 0;
  }

  const ScopedFd client_;
  const StopEvent& stop_;
  const ScopedFd wake_;
  std::unique_ptr<ControlFeed> feed_;  // for the thread only
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

class SocketServer final : public ControlServer {
 public:
  SocketServer(const std::string& path, Handler handler, OnFailure onFailure,
               const std::string& link, OpenFeed openFeed)
      : place_(path),
        handler_(std::move(handler)),
        onFailure_(std::move(onFailure)),
        openFeed_(std::move(openFeed)),
        stop_("no event"),
        listener_(listenAt(path)),
        link_(link, path) {
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
    if (removed_.exchange(true)) return;
    link_.remove();
    place_.release(folder_.get());
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
      ScopedFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (client.valid()) {
        serveClient(std::move(client));
      } else if (!isPassing(errno) && errno != ECONNABORTED) {
        failToServe();
      }
    }
  }

  [[noreturn]] static void failToServe() {
    throw std::system_error(errno, std::generic_category(), "the control socket");
  }

  void serveClient(ScopedFd client) {
    const std::optional<std::string> line = readLine(client, stop_);
    if (!line) return;
    if (openFeed_ && (*line == kControlTrace || *line == kControlTraceSecrets)) {
      feed(std::move(client), *line);
    } else {
      reply(client, handler_(*line));
    }
  }

  void feed(ScopedFd client, const std::string& line) {
    fed_.erase(
        std::remove_if(fed_.begin(), fed_.end(), [](const auto& fed) { return fed->ended(); }),
        fed_.end());
    if (fed_.size() == kMostFeeds) {
      reply(client, kControlError + std::to_string(kMostFeeds) + " traces are being followed\n");
      return;
    }
    fed_.push_back(
        std::make_unique<FedClient>(std::move(client), stop_, openFeed_, line, onFailure_));
  }

  static void reply(const ScopedFd& client, const std::string& answer) {
    // Far shorter than a socket's buffer.
    const ssize_t sent = send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    static_cast<void>(sent);  // a client that is gone needs no answer
  }

  platform::SocketPlace place_;
  const Handler handler_;
  const OnFailure onFailure_;
  const OpenFeed openFeed_;
  const StopEvent stop_;
  ScopedFd folder_;
  const ScopedFd listener_;
  const ScopedLink link_;
  std::atomic<bool> removed_{false};
  std::vector<std::unique_ptr<FedClient>> fed_;  // for the thread only
  std::thread thread_;
};

}  // namespace

std::unique_ptr<ControlServer> openControlServer(const std::string& path,
                                                 ControlServer::Handler handler,
                                                 OnFailure onFailure, const std::string& link,
                                                 OpenFeed openFeed) {
  return std::make_unique<SocketServer>(path, std::move(handler), std::move(onFailure), link,
                                        std::move(openFeed));
}

std::string askAgent(const std::vector<std::string>& paths, const std::string& line) {
  std::string tried;
  std::string denied;
  const auto deadline = SteadyClock::now() + kAnswerLimit;
  for (const std::string& path : paths) {
    platform::SocketAnswer answer =
        platform::askSocket({path}, line, deadline, kLongestControlAnswer);
    switch (answer.error) {
      case 0:
      case ECONNRESET:  // an agent that has ended
        return std::move(answer.text);
      case ENAMETOOLONG:
        failForPath(path);
      case ETIMEDOUT:
        throw std::runtime_error("the agent gave no answer in time");
      case EPIPE:
      case EMSGSIZE:
        fail("the agent at " + path, answer.error);
      case EACCES:
        if (!isOtherFile(path)) denied = path;
        break;
      default:
        break;
    }
    tried += (tried.empty() ? "" : ", ") + path;
  }
  if (denied.empty()) throw NoAgentError("no agent is running at " + tried);
  throw std::runtime_error(
      "permission denied at " + denied +
      ": an agent answers its own user, root, and for the service the group zelta; run this "
      "with sudo");
}

}  // namespace zelta::agent
