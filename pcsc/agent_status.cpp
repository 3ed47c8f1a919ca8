#include "pcsc/agent_status.h"

#include <string>
#include <vector>

#include "contract/control.h"
#include "platform/pipe/ask_socket_linux.h"
#include "platform/pipe/pipe_path.h"

namespace zelta::pcsc {

bool agentHasCard(std::uint32_t readerIndex, std::chrono::steady_clock::time_point deadline) {
  std::vector<std::string> paths = defaultControlPaths(readerIndex);
  paths.insert(paths.begin(), controlLinkPath(platform::pipeRoot(), readerIndex));
  const platform::SocketAnswer answer = platform::askSocket(
      paths, kControlStatusJson + std::string("\n"), deadline, kLongestControlAnswer);
  return answer.error == 0 && saysCardIsIn(answer.text, readerIndex);
}

}  // namespace zelta::pcsc
