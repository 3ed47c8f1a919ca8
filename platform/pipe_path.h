// Where a pipe's name lies on a system whose pipes are sockets.
#pragma once

#include <string>

namespace zelta::platform {

// `\\.\pipe\A\B` becomes `$ZELTA_PIPE_ROOT/A/B` (/run/zelta/pipe where the variable is unset or
// empty). A name without the prefix, with an empty name after it, or with a component `.` or `..`
// gives an empty path.
std::string pipeSocketPath(const std::string& pipeName);

}  // namespace zelta::platform
