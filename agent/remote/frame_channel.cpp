#include "agent/remote/frame_channel.h"

#include <algorithm>
#include <utility>

#include "agent/version.h"
#include "contract/harmless.h"

namespace zelta::agent {

namespace {

constexpr std::size_t kShown = 60;  // the most bytes shown of an unknown peer's

std::string seconds(std::chrono::milliseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) +
         " seconds";
}

}  // namespace

bool FrameChannel::greet() {
  line_.send(encodeFrame(helloFrame({kFrameProtocol, kVersion})));
  const std::optional<Frame> first = receive();
  if (!first && end_ != LineEnd::kBroken) return false;
  const std::optional<Hello> hello = first ? readHello(*first) : std::nullopt;
  if (!hello) {
    const Bytes& came = decoder_.pending().get();
    const std::size_t shown = std::min(came.size(), kShown);
    strange_.assign(came.begin(), came.begin() + static_cast<std::ptrdiff_t>(shown));
    end_ = LineEnd::kStranger;
    return false;
  }
  peer_ = *hello;
  greeted_ = peer_.protocol == kFrameProtocol;
  if (!greeted_) end_ = LineEnd::kVersion;
  nextPing_ = SteadyClock::now() + times_.ping;
  return greeted_;
}

std::optional<std::chrono::microseconds> FrameChannel::measureRoundTrip() {
  const auto begin = SteadyClock::now();
  send(FrameKind::kPing);
  while (const std::optional<Frame> frame = receive()) {
    if (frame->kind == FrameKind::kPong) {
      return std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - begin);
    }
  }
  return std::nullopt;
}

void FrameChannel::send(FrameKind kind, std::uint32_t number, platform::SecretBytes payload) {
  const platform::SecretBytes sent(encodeFrame({kind, number, std::move(payload)}));
  line_.send(sent.get());
}

std::optional<Frame> FrameChannel::next() {
  while (std::optional<Frame> frame = receive()) {
    if (frame->kind == FrameKind::kHello) return endWith(LineEnd::kBroken);
    if (frame->kind != FrameKind::kPong) return frame;
  }
  return std::nullopt;
}

std::optional<Frame> FrameChannel::receive() {
  for (;;) {
    Frame frame;
    const FrameDecoder::Result result = decoder_.next(frame);
    if (result == FrameDecoder::Result::kBroken) return endWith(LineEnd::kBroken);
    if (result == FrameDecoder::Result::kMore) {
      if (!receiveMore()) return std::nullopt;
    } else if (frame.kind == FrameKind::kPing) {
      send(FrameKind::kPong, frame.number);
    } else if (frame.kind == FrameKind::kBye) {
      return endWith(LineEnd::kBye);
    } else {
      return frame;
    }
  }
}

bool FrameChannel::receiveMore() {
  const auto silent = lastHeard_ + patience();
  const IoResult result =
      line_.receive(decoder_.pending(), greeted_ ? std::min(nextPing_, silent) : silent);
  const auto now = SteadyClock::now();
  switch (result) {
    case IoResult::kDone:
      lastHeard_ = now;
      return true;
    case IoResult::kTimedOut:
      break;
    case IoResult::kCancelled:
      end_ = LineEnd::kCancelled;
      return false;
    default:
      end_ = LineEnd::kClosed;
      return false;
  }
  if (now >= silent) {
    end_ = LineEnd::kSilent;
    return false;
  }
  send(FrameKind::kPing);
  nextPing_ = now + times_.ping;
  return true;
}

std::nullopt_t FrameChannel::endWith(LineEnd end) {
  end_ = end;
  return std::nullopt;
}

std::string FrameChannel::describeEnd() const {
  switch (end_) {
    case LineEnd::kBye:
      return "the other end has ended";
    case LineEnd::kCancelled:
      return "ended";
    case LineEnd::kSilent:
      return "nothing has come for " + seconds(patience());
    case LineEnd::kStranger:
      return "what came is not zelta-agent's: '" + harmless(strange_) + "'";
    case LineEnd::kVersion:
      return "zelta-agent " + harmless(peer_.version) + " there speaks version " +
             std::to_string(peer_.protocol) + " of the protocol, zelta-agent " + kVersion +
             " here version " + std::to_string(kFrameProtocol);
    case LineEnd::kBroken:
      return "what came makes no sense";
    case LineEnd::kClosed:
      break;
  }
  return "the line is broken";
}

}  // namespace zelta::agent
