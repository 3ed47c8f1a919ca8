#include "tools/logs/dump_mask.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <system_error>
#include <utility>

namespace zelta::logs {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kBytesPerLine = 16;
constexpr std::size_t kByteWidth = 3;  // two digits and a blank
constexpr std::string_view kHidden = ".. ";

// A command's bytes: CLA INS P1 P2, the data's length (one byte, or 0 and two more), the data, and
// the length of what is expected (as many bytes as the data's length).
constexpr std::size_t kInstruction = 1;
constexpr std::size_t kShortHead = 5;
constexpr std::size_t kExtendedHead = 7;

// VERIFY, CHANGE REFERENCE DATA, DISABLE and ENABLE VERIFICATION REQUIREMENT, RESET RETRY COUNTER.
constexpr std::array<std::uint8_t, 10> kPinInstructions = {0x20, 0x21, 0x24, 0x25, 0x26,
                                                           0x27, 0x28, 0x29, 0x2C, 0x2D};

std::optional<std::uint64_t> announcedLength(std::string_view message) {
  static constexpr std::string_view kEnd = " byte dump:";
  std::uint64_t length = 0;
  const auto [end, error] =
      std::from_chars(message.data(), message.data() + message.size(), length);
  const auto digits = static_cast<std::size_t>(end - message.data());
  if (error != std::errc() || message.substr(digits) != kEnd) return std::nullopt;
  return length;
}

// The bytes of a dump's line; none for any other message.
Bytes bytesOf(std::string_view message) {
  Bytes bytes;
  if (message.size() % kByteWidth != 0) return {};
  for (; !message.empty(); message.remove_prefix(kByteWidth)) {
    std::uint8_t byte = 0;
    const auto [end, error] = std::from_chars(message.data(), message.data() + 2, byte, 16);
    if (error != std::errc() || end != message.data() + 2 || message[2] != ' ') return {};
    bytes.push_back(byte);
  }
  return bytes;
}

using Range = std::pair<std::uint64_t, std::uint64_t>;  // from, up to but not including

// The position of a PIN command's data; 0 and 0 for any other command. If the lengths do not add
// up, all bytes from there to the end are treated as data.
Range secretRange(const Bytes& head, std::uint64_t length) {
  if (head.size() < kShortHead || std::find(kPinInstructions.begin(), kPinInstructions.end(),
                                            head[kInstruction]) == kPinInstructions.end()) {
    return {0, 0};
  }
  const bool isExtended = head[4] == 0 && head.size() == kExtendedHead;
  const std::uint64_t begin = isExtended ? kExtendedHead : kShortHead;
  const std::uint64_t size = isExtended ? head[5] << 8 | head[6] : head[4];
  const std::uint64_t expectedLengthSize = isExtended ? 2 : 1;
  const std::uint64_t end = begin + size;
  const bool addsUp = size != 0 && end <= length && length - end <= expectedLengthSize;
  return {begin, addsUp ? end : length};
}

}  // namespace

std::string DumpMask::masked(std::string_view thread, std::string_view message) {
  const auto known = dumps_.find(thread);
  Dump dump = known == dumps_.end() ? Dump() : std::move(known->second);
  if (known != dumps_.end()) dumps_.erase(known);
  if (const auto length = announcedLength(message)) {
    dumps_.insert_or_assign(std::string(thread), Dump{*length, 0, {}});
    return std::string(message);
  }
  const Bytes bytes = bytesOf(message);
  if (bytes.empty()) return std::string(message);

  const std::uint64_t begin = dump.position;
  dump.position += bytes.size();
  const bool isKnown = bytes.size() == std::min<std::uint64_t>(kBytesPerLine, dump.length - begin);
  const auto missing = std::min(kExtendedHead - dump.head.size(), bytes.size());
  dump.head.insert(dump.head.end(), bytes.begin(), bytes.begin() + static_cast<long>(missing));
  const Range secret = isKnown ? secretRange(dump.head, dump.length) : Range(begin, dump.position);
  std::string shown;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const bool isSecret = begin + i >= secret.first && begin + i < secret.second;
    shown += isSecret ? kHidden : message.substr(i * kByteWidth, kByteWidth);
  }
  if (isKnown && dump.position < dump.length) {
    dumps_.emplace(std::string(thread), std::move(dump));
  }
  return shown;
}

}  // namespace zelta::logs
