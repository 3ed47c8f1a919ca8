// The bytes on the agent's two pipes. Every number is an unsigned 32-bit integer, little-endian;
// a payload is its length followed by exactly that many bytes. See docs/wire-protocol.md.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zelta {

// Written by the driver on the command pipe.
enum class AgentCommand : std::uint32_t {
  kQueryAtrReset = 0,    // answered with ATR length, ATR
  kQueryAtr = 1,         // answered with ATR length, ATR
  kQueryTransmit = 2,    // APDU length, APDU; answered with response length, response
  kNotifyCardReady = 3,  // no answer
};

// Written by the agent on the event pipe.
enum class AgentEvent : std::uint32_t {
  kCardRemoved = 0,
  kCardInserted = 1,
  kSessionLogId = 2,  // id length, id
};

// How long the driver waits for an answer, and when the agent answers for a card that is not done:
// early enough that the answer arrives before the driver gives up.
inline constexpr std::chrono::milliseconds kQueryTime{5000};
inline constexpr std::chrono::milliseconds kAnswerTime{4500};
static_assert(kAnswerTime < kQueryTime);

inline constexpr char kPipePrefix[] = "\\\\.\\pipe\\ProtectedPrefix\\LocalService\\";

inline std::string commandPipeName(std::uint32_t readerIndex) {
  return kPipePrefix + ("zelta_smartcard_command" + std::to_string(readerIndex));
}

inline std::string eventPipeName(std::uint32_t readerIndex) {
  return kPipePrefix + ("zelta_smartcard_event" + std::to_string(readerIndex));
}

}  // namespace zelta
