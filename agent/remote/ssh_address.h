// The address of the driver's machine: ssh://[user@]host[:port][/reader].
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/program/log.h"

namespace zelta::agent {

struct SshAddress {
  std::string user;  // empty: as ssh's configuration says
  std::string host;  // without the brackets of an IPv6 address
  std::string port;  // empty: as ssh's configuration says
  std::uint32_t reader = 0;

  // user@host, as far as given.
  std::string place() const { return user.empty() ? host : user + "@" + host; }
};

// None if the text is not such an address. No part of an address can pass for an option of ssh's or
// has a meaning to a shell.
std::optional<SshAddress> parseSshAddress(const std::string& text);

// `program` and its arguments: ssh that starts the agent there, which logs from `level` on.
std::vector<std::string> sshCommand(const std::string& program, const SshAddress& address,
                                    Severity level);

}  // namespace zelta::agent
