// The path of a pipe's socket, on a system whose pipes are sockets.
#pragma once

#include <string>

namespace zelta::platform {

// The folder of all pipes: $ZELTA_PIPE_ROOT, or /run/zelta/pipe if the variable is unset or empty.
std::string pipeRoot();

// `\\.\pipe\A\B` becomes `A/B` below the root. The result is an empty path, and the name unusable,
// if
//   - the prefix is missing or nothing follows it;
//   - a component is empty, `.` or `..`;
//   - a component holds a slash or a zero byte, which would reach another file than the name says;
//   - the name ends in `~`: the platform uses such names for sockets that are not ready.
std::string pipeSocketPath(const std::string& pipeName);

}  // namespace zelta::platform
