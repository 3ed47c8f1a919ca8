#include "platform/pipe/pipe_path.h"

#include <algorithm>

#include "platform/process/environment.h"

namespace zelta::platform {

namespace {

constexpr char kPrefix[] = "\\\\.\\pipe\\";
constexpr char kDefaultRoot[] = "/run/zelta/pipe";

bool usableComponent(const std::string& component) {
  return !component.empty() && component != "." && component != ".." &&
         component.find('/') == std::string::npos && component.find('\0') == std::string::npos;
}

}  // namespace

std::string pipeRoot() { return environmentOr("ZELTA_PIPE_ROOT", kDefaultRoot); }

std::string pipeSocketPath(const std::string& pipeName) {
  const std::string prefix = kPrefix;
  if (pipeName.compare(0, prefix.size(), prefix) != 0 || pipeName.back() == '~') return {};
  std::string path = pipeRoot();
  std::size_t start = prefix.size();
  while (start <= pipeName.size()) {
    const std::size_t end = std::min(pipeName.find('\\', start), pipeName.size());
    const std::string component = pipeName.substr(start, end - start);
    if (!usableComponent(component)) return {};
    path += '/' + component;
    start = end + 1;
  }
  return path;
}

}  // namespace zelta::platform
