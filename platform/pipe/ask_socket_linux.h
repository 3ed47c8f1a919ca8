// One question to a local server: a client's whole conversation with a UNIX stream socket.
//
// Stateless; any thread. Blocks the caller until the answer is there, but not past the deadline,
// whatever the server does. Throws std::bad_alloc.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace zelta::platform {

struct SocketAnswer {
  // The system's error number: of the last path if no server listens at any (ENOENT, ECONNREFUSED),
  // ETIMEDOUT after the deadline, EMSGSIZE if the answer is longer than it may be.
  int error = 0;
  // What the server sent before it closed the connection. Empty after an error.
  std::string text;
};

// Sends `question` to the first of the paths at which a server listens.
SocketAnswer askSocket(const std::vector<std::string>& paths, const std::string& question,
                       std::chrono::steady_clock::time_point deadline, std::size_t longestAnswer);

}  // namespace zelta::platform
