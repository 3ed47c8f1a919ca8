// Feeds an agent any bytes from the other end of a line, and checks what must always hold. Shared
// by the fuzzer and by the test that plays its corpus.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/remote/frame_channel.h"
#include "tests/support/fuzz_input.h"

namespace zelta::test {

// Delivers bytes in pieces, then ends; keeps the sent bytes.
class BytesLine final : public agent::Line {
 public:
  BytesLine(Bytes bytes, std::size_t piece) : bytes_(std::move(bytes)), piece_(piece) {}

  void send(const Bytes& bytes) override { sent.insert(sent.end(), bytes.begin(), bytes.end()); }
  agent::IoResult receive(platform::SecretQueue& into, agent::SteadyClock::time_point) override {
    if (at_ == bytes_.size()) return agent::IoResult::kClosed;
    const std::size_t size = std::min(piece_, bytes_.size() - at_);
    into.append(bytes_.data() + at_, size);
    at_ += size;
    return agent::IoResult::kDone;
  }
  void cancel() override {}

  Bytes sent;

 private:
  const Bytes bytes_;
  const std::size_t piece_;
  std::size_t at_ = 0;
};

struct Decoded {
  std::vector<agent::Frame> frames;
  bool broken = false;
};

inline Decoded decode(const Bytes& bytes, std::size_t piece) {
  Decoded decoded;
  agent::FrameDecoder decoder;
  Bytes whole;
  for (std::size_t at = 0; at < bytes.size() && !decoded.broken; at += piece) {
    const std::size_t size = std::min(piece, bytes.size() - at);
    decoder.pending().append(bytes.data() + at, size);
    agent::Frame frame;
    agent::FrameDecoder::Result result{};
    while ((result = decoder.next(frame)) == agent::FrameDecoder::Result::kFrame) {
      const Bytes again = agent::encodeFrame(frame);
      whole.insert(whole.end(), again.begin(), again.end());
      decoded.frames.push_back(frame);
    }
    decoded.broken = result == agent::FrameDecoder::Result::kBroken;
  }
  require(std::equal(whole.begin(), whole.end(), bytes.begin()), "frames are the bytes that came");
  return decoded;
}

inline bool same(const std::vector<agent::Frame>& a, const std::vector<agent::Frame>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& one, const auto& other) {
    return one.kind == other.kind && one.number == other.number &&
           one.payload.get() == other.payload.get();
  });
}

inline std::size_t countOf(const std::vector<agent::Frame>& frames, agent::FrameKind kind) {
  return static_cast<std::size_t>(std::count_if(
      frames.begin(), frames.end(), [kind](const auto& frame) { return frame.kind == kind; }));
}

// Checks a channel's frames until its line has ended.
inline void checkChannel(const Bytes& bytes, std::size_t piece, const Decoded& decoded) {
  BytesLine line(bytes, piece);
  agent::FrameChannel channel(line, agent::LineTimes{});
  std::vector<agent::Frame> given;
  if (channel.greet()) {
    while (std::optional<agent::Frame> frame = channel.next()) given.push_back(std::move(*frame));
  }
  using Kind = agent::FrameKind;
  for (const Kind kind : {Kind::kHello, Kind::kPing, Kind::kPong, Kind::kBye}) {
    require(countOf(given, kind) == 0, "the channel's own business stays its own");
  }
  require(given.size() <= decoded.frames.size(), "nothing is made up");
  const Decoded sent = decode(line.sent, line.sent.size());
  require(!sent.broken && !sent.frames.empty() && agent::readHello(sent.frames.front()).has_value(),
          "what is sent begins with a hello");
  require(countOf(sent.frames, Kind::kPong) <= countOf(decoded.frames, Kind::kPing),
          "a pong answers a ping");
  const std::string end = channel.describeEnd();
  require(!end.empty() && std::none_of(end.begin(), end.end(),
                                       [](unsigned char c) { return c < ' ' && c != '\t'; }),
          "an end is told in one line of text");
}

// A byte for the size of the pieces and whether this program's hello goes before; then the bytes.
inline void playAnyFrames(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::uint8_t first = input.byte();
  const std::size_t piece = 1 + first / 2;
  Bytes bytes;
  if (first % 2 != 0) bytes = agent::encodeFrame(agent::helloFrame({agent::kFrameProtocol, "1"}));
  const Bytes rest = input.bytes(size);
  bytes.insert(bytes.end(), rest.begin(), rest.end());
  const Decoded decoded = decode(bytes, piece);
  require(same(decoded.frames, decode(bytes, std::max<std::size_t>(bytes.size(), 1)).frames),
          "frames do not depend on how their bytes come");
  checkChannel(bytes, piece, decoded);
}

}  // namespace zelta::test
