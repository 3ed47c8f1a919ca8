// The bytes on the agent's two pipes. Every number is an unsigned 32-bit integer, little-endian;
// a payload is its length followed by exactly that many bytes. See docs/wire-protocol.md.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace zelta {

// Written by the driver on the command pipe.
enum class AgentCommand : std::uint32_t {
  QueryAtrReset = 0,    // answered with ATR length, ATR
  QueryAtr = 1,         // answered with ATR length, ATR
  QueryTransmit = 2,    // APDU length, APDU; answered with response length, response
  NotifyCardReady = 3,  // no answer
};

// Written by the agent on the event pipe.
enum class AgentEvent : std::uint32_t {
  CardRemoved = 0,
  CardInserted = 1,
  SessionLogId = 2,  // id length, id
};

// A number as it travels.
inline std::array<std::uint8_t, 4> encodeNumber(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
          static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

inline std::uint32_t decodeNumber(const std::array<std::uint8_t, 4>& bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

inline constexpr char kPipePrefix[] = "\\\\.\\pipe\\ProtectedPrefix\\LocalService\\";

inline std::string commandPipeName(std::uint32_t readerIndex) {
  return kPipePrefix + ("zelta_smartcard_command" + std::to_string(readerIndex));
}

inline std::string eventPipeName(std::uint32_t readerIndex) {
  return kPipePrefix + ("zelta_smartcard_event" + std::to_string(readerIndex));
}

}  // namespace zelta
