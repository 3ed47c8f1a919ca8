// The bytes between two agents, both ways.
#pragma once

#include "agent/link/pipe_client_port.h"
#include "contract/bytes.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

class Line {
 public:
  virtual ~Line() = default;

  // Sends the bytes in the order of the calls and never waits: bytes that the system does not take
  // at once are kept until `receive` can pass them on. Any thread.
  virtual void send(const Bytes& bytes) = 0;
  // Appends received bytes to `into`; blocks until there are some, or until `deadline`. kClosed if
  // nothing more can come, or if the other end has left too much unread. One thread at a time.
  virtual IoResult receive(platform::SecretQueue& into, SteadyClock::time_point deadline) = 0;
  // Makes this and every later `receive` return kCancelled. Any thread.
  virtual void cancel() = 0;
};

}  // namespace zelta::agent
