#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "agent/link/pipe_client_port.h"
#include "agent/platform/pipe_connection_linux.h"
#include "platform/files/path_watch_linux.h"
#include "platform/pipe/pipe_path.h"

namespace zelta::agent {

namespace {

// How long to wait where the system will not say that something has changed.
constexpr std::chrono::milliseconds kUnwatched{1000};

OpenResult resultOf(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return OpenResult::kAbsent;
    case ECONNREFUSED:
    case EAGAIN:  // more clients wait than the driver admits
      return OpenResult::kRefused;
    default:
      return OpenResult::kFailed;
  }
}

// 0 or the error number.
int connectTo(const platform::ScopedFd& socket, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return ENAMETOOLONG;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  return connect(socket.get(), generic, sizeof address) == 0 ? 0 : errno;
}

class SocketPipeClient : public PipeClientPort {
 public:
  SocketPipeClient() : cancel_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!cancel_.valid()) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  void watch(const std::vector<std::string>& pipeNames) override {
    std::vector<std::string> paths;
    paths.reserve(pipeNames.size());
    for (const std::string& name : pipeNames) {
      paths.push_back(std::filesystem::absolute(platform::pipeSocketPath(name)).string());
    }
    watch_.reset();
    watch_.emplace(std::move(paths));
  }

  OpenedPipe open(const std::string& pipeName) override {
    OpenedPipe opened;
    const std::string path = platform::pipeSocketPath(pipeName);
    platform::ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int error = socket.valid() ? connectTo(socket, path) : errno;
    if (error != 0) {
      opened.result = resultOf(error);
      opened.detail = path + ": " + std::generic_category().message(error);
      return opened;
    }
    opened.connection = std::make_unique<SocketConnection>(std::move(socket));
    opened.result = OpenResult::kOpened;
    return opened;
  }

  void waitForChange(std::optional<std::chrono::milliseconds> limit) override {
    if (!watch_->problem().empty()) limit = std::min(limit.value_or(kUnwatched), kUnwatched);
    std::optional<SteadyClock::time_point> deadline;
    if (limit) deadline = SteadyClock::now() + *limit;
    for (;;) {
      std::array<pollfd, 2> waits{{{cancel_.get(), POLLIN, 0}, {watch_->fd(), POLLIN, 0}}};
      const int ready = poll(waits.data(), waits.size(), pollTimeout(deadline));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0 || waits[0].revents != 0 || watch_->takeNews()) return;
    }
  }

  void cancel() override { eventfd_write(cancel_.get(), 1); }

 private:
  platform::ScopedFd cancel_;  // readable from `cancel` on
  std::optional<platform::PathWatch> watch_;
};

}  // namespace

std::unique_ptr<PipeClientPort> makeSystemPipeClient() {
  return std::make_unique<SocketPipeClient>();
}

}  // namespace zelta::agent
