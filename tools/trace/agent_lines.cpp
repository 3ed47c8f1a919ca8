// Not sd-event: one poll of socket and signals, between two lines of the caller's loop.
#include "tools/trace/agent_lines.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "contract/control.h"
#include "platform/pipe/socket_place_linux.h"

namespace zelta::trace {

namespace {

using platform::ScopedFd;

// Far more than a record of the longest command and response.
constexpr std::size_t kLongestLine = std::size_t{1} << 20;

ScopedFd connectTo(const AgentPlace& place) {
  int error = ENOENT;
  for (const std::string& path : place.paths()) {
    ScopedFd agent(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int failed = agent.valid() ? platform::connectToPath(agent, path) : errno;
    if (failed == 0) return agent;
    if (error != EACCES) error = failed;
  }
  throw AgentError(agentProblem(place, error));
}

ScopedFd endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return ScopedFd(signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace

std::vector<std::string> AgentPlace::paths() const {
  return control.empty() ? defaultControlPaths(reader) : std::vector<std::string>{control};
}

std::string agentProblem(const AgentPlace& place, int error) {
  std::string tried;
  for (const std::string& path : place.paths()) tried += (tried.empty() ? "" : ", ") + path;
  if (error == EACCES) {
    return "permission denied at " + tried +
           ": an agent answers its own user, root, and for the service the group zelta; run this "
           "with sudo";
  }
  if (error == ENOENT || error == ECONNREFUSED) {
    const std::string start = "; to start the service: sudo systemctl start zelta-agent@" +
                              std::to_string(place.reader) +
                              "; an agent with --to answers at the path of its --control only";
    return "no agent is running at " + tried + (place.control.empty() ? start : std::string());
  }
  return tried + ": " + std::generic_category().message(error);
}

AgentLines::AgentLines(const AgentPlace& place, bool secrets)
    : signals_(endingSignals()), agent_(connectTo(place)) {
  const std::string question = std::string(secrets ? kControlTraceSecrets : kControlTrace) + "\n";
  if (send(agent_.get(), question.data(), question.size(), MSG_NOSIGNAL) < 0) {
    throw AgentError(agentProblem(place, errno));
  }
  const std::string error = kControlError;
  const std::string answer = next().value_or(error + "it has ended") + "\n";
  if (answer == kControlOk) return;
  const bool refused = answer.compare(0, error.size(), error) == 0;
  throw AgentError("the agent: " + answer.substr(refused ? error.size() : 0,
                                                 answer.size() - 1 - (refused ? error.size() : 0)));
}

std::optional<std::string> AgentLines::next() {
  std::size_t seen = 0;
  for (;;) {
    const std::size_t end = received_.find('\n', seen);
    if (end != std::string::npos) {
      std::string line = received_.substr(0, end);
      received_.erase(0, end + 1);
      return line;
    }
    seen = received_.size();
    if (seen > kLongestLine) throw AgentError("the agent sent a line of more than 1 MiB");
    if (!receive()) return std::nullopt;
  }
}

bool AgentLines::receive() {
  std::array<pollfd, 2> waited = {{{agent_.get(), POLLIN, 0}, {signals_.get(), POLLIN, 0}}};
  while (poll(waited.data(), waited.size(), -1) < 0) {
    if (errno != EINTR) return false;
  }
  if (waited[0].revents == 0) return false;  // a signal alone: received bytes are read first
  std::array<char, 65536> buffer;
  const ssize_t count = recv(agent_.get(), buffer.data(), buffer.size(), 0);
  if (count <= 0) return false;
  received_.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

}  // namespace zelta::trace
