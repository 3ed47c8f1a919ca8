// One end of a line: frames both ways, the check of versions at the start, and keep-alive.
//
// Both ends ping each other after their hellos. A line on which nothing has come for a while is
// dead: a broken network shows in no other way. Only received bytes count, and only while a thread
// waits in `next` or `greet`.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/remote/frame.h"
#include "agent/remote/line.h"

namespace zelta::agent {

// Time limits of a line.
struct LineTimes {
  // Limit for the other end's hello: its user may have to log in first.
  std::chrono::milliseconds greeting{120000};
  std::chrono::milliseconds ping{5000};
  std::chrono::milliseconds silence{15000};
};

enum class LineEnd {
  kBye,     // the other end ends as asked
  kClosed,  // the bytes have ended
  kCancelled,
  kSilent,    // nothing has come for too long
  kStranger,  // the first bytes are not an agent's
  kVersion,   // an agent, but of another protocol
  kBroken,    // a frame that makes no sense
};

class FrameChannel {
 public:
  // `line` outlives the channel.
  FrameChannel(Line& line, const LineTimes& times) : line_(line), times_(times) {}

  // Says hello and waits for the other end's. False: see `end`. Call first, once.
  [[nodiscard]] bool greet();
  // How long a ping takes to the other end and back; none if the line has ended. After `greet`,
  // before anything else.
  std::optional<std::chrono::microseconds> measureRoundTrip();

  // Never waits. Any thread, after `greet`.
  void send(FrameKind kind, std::uint32_t number = 0, platform::SecretBytes payload = {});
  // Blocks until a frame comes that the channel does not handle itself; none at the end of the
  // line. One thread at a time, also for everything below.
  std::optional<Frame> next();
  // Ends the channel because the last frame makes no sense.
  void refuse() { end_ = LineEnd::kBroken; }

  // Why the line has ended, once it has.
  LineEnd end() const { return end_; }
  // The reason for people, with what the other end said about itself or sent instead.
  std::string describeEnd() const;
  const Hello& peer() const { return peer_; }

 private:
  // The next frame of any kind.
  std::optional<Frame> receive();
  // How long the line may be silent.
  std::chrono::milliseconds patience() const { return greeted_ ? times_.silence : times_.greeting; }
  // Waits for more bytes and pings in between; false if the line has ended.
  [[nodiscard]] bool receiveMore();
  std::nullopt_t endWith(LineEnd end);

  Line& line_;
  const LineTimes times_;
  FrameDecoder decoder_;
  SteadyClock::time_point lastHeard_ = SteadyClock::now();
  SteadyClock::time_point nextPing_ = lastHeard_ + times_.ping;
  bool greeted_ = false;
  Hello peer_;
  std::string strange_;  // what came instead of a hello
  LineEnd end_ = LineEnd::kClosed;
};

}  // namespace zelta::agent
