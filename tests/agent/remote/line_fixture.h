// Both ends of a line, in the test's process.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <memory>

#include "agent/program/log.h"
#include "agent/remote/dialer.h"
#include "agent/remote/frame_channel.h"
#include "tests/agent/running_agent.h"

namespace zelta::test {

struct LineEnds {
  LineEnds() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    near = agent::makeDescriptorLine(ends[0], ends[0]);
    far = agent::makeDescriptorLine(ends[1], ends[1]);
  }

  std::unique_ptr<agent::Line> near;
  std::unique_ptr<agent::Line> far;
};

// Limits so long that none runs out.
inline agent::LineTimes patientTimes() { return {kLong, kLong, kLong}; }

inline agent::SteadyClock::time_point later() { return agent::SteadyClock::now() + kLong; }

// The channel's next frame, which must come.
inline agent::Frame nextOf(agent::FrameChannel& channel) {
  const std::optional<agent::Frame> frame = channel.next();
  EXPECT_TRUE(frame) << channel.describeEnd();
  return frame.value_or(agent::Frame());
}

// The payload of a request for a card.
inline Bytes forCard(std::uint32_t card, const Bytes& apdu = {}) {
  Bytes payload = numberBytes(card);
  payload.insert(payload.end(), apdu.begin(), apdu.end());
  return payload;
}

}  // namespace zelta::test
