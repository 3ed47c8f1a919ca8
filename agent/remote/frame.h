// The frames between an agent at the card (the near end) and one at the driver (the far end).
//
// A frame is its length (4 bytes, what follows), its kind (1 byte), a number (4 bytes) and the
// payload. Numbers are least significant byte first.
//
//   kind       from  number            payload
//   hello      both  0                 magic, protocol version (4 bytes), program version (text)
//   cardIn     near  of the card       -
//   cardOut    near  0                 -
//   reset      far   of the request    the card's number (4 bytes)
//   atr        far   of the request    the card's number
//   transmit   far   of the request    the card's number, the command APDU
//   answer     near  of the request    the ATR or the response; empty if there is none
//   ready      far   0                 -
//   ping       both  any               -
//   pong       both  of the ping       -
//   bye        both  0                 -
//
// A hello is the first frame of each end, and the only one whose form never changes. Each
// insertion has a new number, so a command for one card never reaches the next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "contract/bytes.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

// Increased with every change of the frames.
inline constexpr std::uint32_t kFrameProtocol = 1;

enum class FrameKind : std::uint8_t {
  kHello = 1,
  kCardIn = 2,
  kCardOut = 3,
  kReset = 4,
  kAtr = 5,
  kTransmit = 6,
  kAnswer = 7,
  kReady = 8,
  kPing = 9,
  kPong = 10,
  kBye = 11,
};

// Room for the longest APDU that an agent takes, or for a response with 65,536 bytes of data, and
// for the card's number.
inline constexpr std::size_t kLongestPayload = 65548 + kNumberSize;  // bytes

struct Frame {
  FrameKind kind = FrameKind::kBye;
  std::uint32_t number = 0;
  platform::SecretBytes payload{};  // may be a command, which may contain a PIN
};

// The payload is at most `kLongestPayload` bytes long.
Bytes encodeFrame(const Frame& frame);

// Cuts a stream of bytes into frames. One thread.
class FrameDecoder {
 public:
  enum class Result {
    kFrame,
    kMore,    // the next frame is not whole yet
    kBroken,  // no frame begins like this; the stream cannot be followed any further
  };

  // Bytes received that are not a whole frame yet; append further ones here.
  platform::SecretQueue& pending() { return pending_; }
  // The next frame, if it is whole.
  Result next(Frame& frame);

 private:
  platform::SecretQueue pending_;
};

// What an end says about itself.
struct Hello {
  std::uint32_t protocol = kFrameProtocol;
  std::string version;  // of the program
};

Frame helloFrame(const Hello& hello);
// None if `frame` is not an agent's hello.
std::optional<Hello> readHello(const Frame& frame);

}  // namespace zelta::agent
