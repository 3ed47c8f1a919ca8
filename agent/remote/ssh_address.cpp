#include "agent/remote/ssh_address.h"

#include <algorithm>
#include <limits>

namespace zelta::agent {

namespace {

constexpr char kScheme[] = "ssh://";
constexpr std::uint64_t kHighestPort = 65535;

bool isLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Whether the text has only letters, digits and `others`, is not empty, and cannot pass for an
// option.
bool isName(const std::string& text, const std::string& others) {
  return !text.empty() && text[0] != '-' && std::all_of(text.begin(), text.end(), [&](char c) {
    return isLetterOrDigit(c) || others.find(c) != std::string::npos;
  });
}

std::optional<std::uint32_t> parseNumber(const std::string& text, std::uint64_t most) {
  constexpr std::size_t kMostDigits = 10;
  if (text.empty() || text.size() > kMostDigits) return std::nullopt;
  std::uint64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (number > most) return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

// Cuts the text at the last `mark` and returns the rest without the mark; none if there is no mark.
std::optional<std::string> takeAfter(std::string& text, char mark) {
  const std::size_t at = text.rfind(mark);
  if (at == std::string::npos) return std::nullopt;
  std::string after = text.substr(at + 1);
  text.erase(at);
  return after;
}

}  // namespace

std::optional<SshAddress> parseSshAddress(const std::string& text) {
  const std::string scheme = kScheme;
  if (text.compare(0, scheme.size(), scheme) != 0) return std::nullopt;
  std::string rest = text.substr(scheme.size());
  SshAddress address;
  if (const std::optional<std::string> reader = takeAfter(rest, '/'); reader && !reader->empty()) {
    const auto number = parseNumber(*reader, std::numeric_limits<std::uint32_t>::max());
    if (!number) return std::nullopt;
    address.reader = *number;
  }
  if (const std::size_t at = rest.find('@'); at != std::string::npos) {
    address.user = rest.substr(0, at);
    rest.erase(0, at + 1);
    if (!isName(address.user, "._-+")) return std::nullopt;
  }
  const bool bracketed = !rest.empty() && rest[0] == '[';
  if (!bracketed || rest.back() != ']') {
    if (const std::optional<std::string> port = takeAfter(rest, ':')) {
      if (parseNumber(*port, kHighestPort).value_or(0) == 0) return std::nullopt;
      address.port = *port;
    }
  }
  if (bracketed) {
    if (rest.back() != ']') return std::nullopt;
    rest = rest.substr(1, rest.size() - 2);
  }
  if (!isName(rest, bracketed ? ":.%_-" : "._-")) return std::nullopt;
  address.host = rest;
  return address;
}

std::vector<std::string> sshCommand(const std::string& program, const SshAddress& address,
                                    Severity level) {
  std::vector<std::string> command = {program, "-T"};
  if (!address.port.empty()) command.insert(command.end(), {"-p", address.port});
  command.insert(command.end(),
                 {"--", address.place(),
                  "zelta-agent --backend remote --reader " + std::to_string(address.reader) +
                      " --log-level " + severityName(level)});
  return command;
}

}  // namespace zelta::agent
