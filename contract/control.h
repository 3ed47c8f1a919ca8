// The words and the paths of the agent's control socket, which is a named pipe on Windows. A client
// sends a line, and reads the answer until the agent ends the connection. See docs/agent.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelta {

inline constexpr char kControlInsert[] = "insert";
inline constexpr char kControlRemove[] = "remove";
inline constexpr char kControlStatus[] = "status";
inline constexpr char kControlStatusJson[] = "status json";
// The answers to these two go on, one JSON object a line, until either end leaves.
inline constexpr char kControlTrace[] = "trace";
inline constexpr char kControlTraceSecrets[] = "trace secrets";

// An answer begins with one of these. The reason follows the second, and ends with a line break.
inline constexpr char kControlOk[] = "ok\n";
inline constexpr char kControlError[] = "error: ";

// The longest line, and the longest answer, that are read; in bytes.
inline constexpr std::size_t kLongestControlLine = 256;
inline constexpr std::size_t kLongestControlAnswer = 65536;

// Paths at which the control socket of a reader's agent may be, the agent's own choice first:
// $XDG_RUNTIME_DIR/zelta-agent<reader>.ctl if that variable is set,
// /run/zelta/agent<reader>.ctl,
// /run/zelta-agent<reader>/control, the one of the agent that runs as a service.
std::vector<std::string> defaultControlPaths(std::uint32_t reader);

// The same on Windows:
// \\.\pipe\ProtectedPrefix\LocalService\zelta-agent<reader>, the one of the agent that runs as a
// service: nobody but the local service account can take that name and answer in its place,
// \\.\pipe\zelta-agent<reader>, that of any other.
std::vector<std::string> defaultControlPipes(std::uint32_t reader);

// The path of a link to the agent's control socket, beside the folder of its pipes. An agent makes
// the link if it may write there.
std::string controlLinkPath(const std::string& pipeRoot, std::uint32_t reader);

// Whether this answer to `kControlStatusJson` is of that reader's agent and says that a card is in.
bool saysCardIsIn(const std::string& answer, std::uint32_t reader);

}  // namespace zelta
