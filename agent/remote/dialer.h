// Calls the machine with the driver and starts the agent there.
#pragma once

#include <memory>

#include "agent/remote/line.h"
#include "agent/remote/ssh_address.h"

namespace zelta::agent {

class DialedCall {
 public:
  virtual ~DialedCall() = default;

  virtual Line& line() = 0;
  // Hangs up and waits for the program that made the call, which is ended if it does not end within
  // a moment. Its exit code: of the agent there, or of ssh itself. Nothing but the destructor may
  // be called afterwards.
  virtual int hangUp() = 0;
};

class Dialer {
 public:
  virtual ~Dialer() = default;

  // Throws std::runtime_error with a message for people if ssh cannot be started. Whether the other
  // machine can be reached shows on the line.
  virtual std::unique_ptr<DialedCall> dial() = 0;
};

// Exit codes of ssh's that are not the agent's.
inline constexpr int kSshNoProgram = 127;
inline constexpr int kSshFailed = 255;

// Dials over the user's own ssh. `command` is the program and its arguments. It shares the
// terminal with this program, so it can ask for a password, and standard error.
std::unique_ptr<Dialer> makeSshDialer(std::vector<std::string> command);

// A line on two descriptors, which may be the same; it closes them and makes them non-blocking.
// Makes the process ignore SIGPIPE. Throws std::system_error for lack of handles.
std::unique_ptr<Line> makeDescriptorLine(int input, int output);

}  // namespace zelta::agent
