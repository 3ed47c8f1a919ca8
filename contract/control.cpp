// Not nlohmann-json: pcscd's handler asks for two members and nothing else.
#include "contract/control.h"

#include <cstdlib>
#include <string_view>

#include "contract/wire.h"

namespace zelta {

namespace {

// Whether the object has the member, written without spaces. A quotation mark inside a text has a
// backslash before it, so no text can look like a member.
bool hasMember(std::string_view json, const std::string& member) {
  return json.find(member + ',') != std::string_view::npos ||
         json.find(member + '}') != std::string_view::npos;
}

}  // namespace

std::vector<std::string> defaultControlPaths(std::uint32_t reader) {
  const std::string agent = "agent" + std::to_string(reader);
  std::vector<std::string> paths;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing of the product changes the environment
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0') {
    paths.push_back(std::string(runtime) + "/zelta-" + agent + ".ctl");
  }
  paths.push_back("/run/zelta/" + agent + ".ctl");
  paths.push_back("/run/zelta-" + agent + "/control");
  return paths;
}

std::vector<std::string> defaultControlPipes(std::uint32_t reader) {
  const std::string agent = "zelta-agent" + std::to_string(reader);
  return {kPipePrefix + agent, "\\\\.\\pipe\\" + agent};
}

std::string controlLinkPath(const std::string& pipeRoot, std::uint32_t reader) {
  return pipeRoot + "-agent" + std::to_string(reader);
}

bool saysCardIsIn(const std::string& answer, std::uint32_t reader) {
  const std::string ok = kControlOk;
  return answer.compare(0, ok.size(), ok) == 0 &&
         hasMember(answer, "\"reader\":" + std::to_string(reader)) &&
         hasMember(answer, "\"card\":\"in\"");
}

}  // namespace zelta
