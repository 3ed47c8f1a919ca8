#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "agent/link/pipe_client_port.h"
#include "agent/platform/pipe_connection_linux.h"
#include "platform/files/path_watch_linux.h"
#include "platform/pipe/pipe_path.h"
#include "platform/pipe/socket_place_linux.h"

namespace zelta::agent {

namespace {

// How long to wait if the system does not report changes.
constexpr std::chrono::milliseconds kUnwatched{1000};
constexpr char kWhoMay[] = " (only root and members of the group zelta may connect)";

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

class SocketPipeClient : public PipeClientPort {
 public:
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
    const int error = socket.valid() ? platform::connectToPath(socket, path) : errno;
    if (error != 0) {
      opened.result = resultOf(error);
      opened.detail = path + ": " + std::generic_category().message(error);
      if (error == EACCES) opened.detail += kWhoMay;
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
      const StopEvent::Waited waited = cancel_.waitFor(watch_->fd(), POLLIN, deadline);
      if (waited.reason != StopEvent::Reason::kReady || watch_->takeNews()) return;
    }
  }

  void cancel() override { cancel_.stop(); }

 private:
  const StopEvent cancel_;
  std::optional<platform::PathWatch> watch_;
};

}  // namespace

std::unique_ptr<PipeClientPort> makeSystemPipeClient() {
  return std::make_unique<SocketPipeClient>();
}

}  // namespace zelta::agent
