#include "agent/remote/frame.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>
namespace zelta::agent {

namespace {

constexpr std::size_t kHeadSize = 1 + kNumberSize;  // kind and number
constexpr std::uint8_t kMagic[] = {'Z', 'L', 'T', 'A'};
constexpr std::size_t kVersionAt = sizeof kMagic + kNumberSize;
constexpr std::size_t kLongestVersion = 64;

bool isKind(std::uint8_t code) {
  return code >= static_cast<std::uint8_t>(FrameKind::kHello) &&
         code <= static_cast<std::uint8_t>(FrameKind::kBye);
}

std::ptrdiff_t offset(std::size_t size) { return static_cast<std::ptrdiff_t>(size); }

}  // namespace

Bytes encodeFrame(const Frame& frame) {
  const Bytes& payload = frame.payload.get();
  assert(payload.size() <= kLongestPayload);
  Bytes bytes = numberBytes(static_cast<std::uint32_t>(kHeadSize + payload.size()));
  bytes.reserve(kNumberSize + kHeadSize + payload.size());
  bytes.push_back(static_cast<std::uint8_t>(frame.kind));
  const auto number = toLittleEndian(frame.number);
  bytes.insert(bytes.end(), number.begin(), number.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

FrameDecoder::Result FrameDecoder::next(Frame& frame) {
  if (pending_.size() < kNumberSize) return Result::kMore;
  const std::size_t length = loadLittleEndian(pending_.data());
  if (length < kHeadSize || length > kHeadSize + kLongestPayload) return Result::kBroken;
  if (pending_.size() > kNumberSize && !isKind(pending_.data()[kNumberSize]))
    return Result::kBroken;
  if (pending_.size() < kNumberSize + length) return Result::kMore;
  const std::uint8_t* const head = pending_.data() + kNumberSize;
  frame.kind = static_cast<FrameKind>(head[0]);
  frame.number = loadLittleEndian(head + 1);
  frame.payload = Bytes(head + kHeadSize, head + length);
  pending_.drop(kNumberSize + length);
  return Result::kFrame;
}

Frame helloFrame(const Hello& hello) {
  Bytes payload(std::begin(kMagic), std::end(kMagic));
  const auto protocol = toLittleEndian(hello.protocol);
  payload.insert(payload.end(), protocol.begin(), protocol.end());
  payload.insert(payload.end(), hello.version.begin(), hello.version.end());
  return {FrameKind::kHello, 0, std::move(payload)};
}

std::optional<Hello> readHello(const Frame& frame) {
  const Bytes& payload = frame.payload.get();
  if (frame.kind != FrameKind::kHello || payload.size() < kVersionAt ||
      payload.size() > kVersionAt + kLongestVersion ||
      !std::equal(std::begin(kMagic), std::end(kMagic), payload.begin())) {
    return std::nullopt;
  }
  return Hello{loadLittleEndian(payload.data() + sizeof kMagic),
               std::string(payload.begin() + offset(kVersionAt), payload.end())};
}

}  // namespace zelta::agent
