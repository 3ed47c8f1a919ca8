// The text that a scripted card answers from. docs/agent.md describes the format.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "contract/bytes.h"

namespace zelta::agent {

// A mistake in a script. The message begins with the line: "line 3: ...".
class ScriptError : public std::runtime_error {
 public:
  ScriptError(std::size_t line, const std::string& problem)
      : std::runtime_error("line " + std::to_string(line) + ": " + problem) {}
};

// What a command must look like: byte by byte, with gaps, and possibly with more bytes after it.
struct CommandPattern {
  std::vector<std::optional<std::uint8_t>> bytes;
  bool open = false;  // more bytes may follow

  bool matches(const Bytes& command) const;
};

struct ScriptResponse {
  enum class Kind { kFixed, kNone, kEcho };
  Kind kind = Kind::kFixed;
  Bytes bytes{};
  std::chrono::milliseconds delay{0};

  // The response to `command`; empty for kNone, a card that is mute.
  Bytes to(const Bytes& command) const;
};

enum class CardAction { kInsert, kRemove };

struct Script {
  struct Reply {
    CommandPattern pattern;
    std::vector<ScriptResponse> responses;  // in turns, from the first again; at least one
    std::size_t given = 0;                  // number of responses given so far
  };
  struct Timed {
    std::chrono::milliseconds at;  // after the start
    CardAction action;
  };
  struct Trigger {
    enum class On { kReset, kAtr, kReady, kCommand };
    On on;
    CommandPattern pattern;  // of kCommand
    CardAction action;
    std::chrono::milliseconds delay;
  };

  ScriptResponse atr;
  bool cardIn = true;  // at the start
  std::vector<Reply> replies;
  ScriptResponse otherwise;  // to a command that no reply matches
  std::vector<Timed> timed;
  std::vector<Trigger> triggers;

  const ScriptResponse& responseTo(const Bytes& command);
};

// Throws ScriptError.
Script parseScript(const std::string& text);

}  // namespace zelta::agent
