#include "pcsc/atr.h"

#include <optional>

#include "contract/bytes.h"

namespace zelta::pcsc {

namespace {

constexpr std::uint8_t kDirectConvention = 0x3B;
constexpr std::uint8_t kInverseConvention = 0x3F;
constexpr std::uint8_t kHistoricalCount = 0x0F;  // of T0
// The bits of T0 and each TD that announce interface bytes.
constexpr std::uint8_t kInterfaceBytes = 0xF0;
constexpr std::uint8_t kNextTd = 0x80;
constexpr std::uint8_t kProtocol = 0x0F;  // of each TD

std::size_t countBits(unsigned bits) {
  std::size_t count = 0;
  for (; bits != 0; bits &= bits - 1) ++count;
  return count;
}

// Announced by T0 and the TDs.
struct Announced {
  std::size_t size = 2;         // bytes, without TCK
  std::uint32_t protocols = 0;  // those of the TDs
};

// None if the bytes end before a TD that is announced.
std::optional<Announced> readAnnounced(const Bytes& bytes) {
  Announced announced;
  for (std::size_t announcing = 1;;) {
    const unsigned byte = bytes[announcing];
    announced.size += countBits(byte & kInterfaceBytes);
    if (announcing > 1) announced.protocols |= 1u << (byte & kProtocol);
    if ((byte & kNextTd) == 0) break;
    announcing = announced.size - 1;  // the TD is the last of its group
    if (announcing >= bytes.size()) return std::nullopt;
  }
  announced.size += bytes[1] & kHistoricalCount;
  return announced;
}

std::optional<Announced> readPossible(const Bytes& bytes) {
  if (bytes.size() < 2) return std::nullopt;
  if (bytes[0] != kDirectConvention && bytes[0] != kInverseConvention) return std::nullopt;
  std::optional<Announced> announced = readAnnounced(bytes);
  if (!announced) return std::nullopt;
  const bool fits = bytes.size() == announced->size || bytes.size() == announced->size + 1;
  return fits ? announced : std::nullopt;
}

}  // namespace

bool isPossibleAtr(const Bytes& bytes) { return readPossible(bytes).has_value(); }

std::uint32_t offeredProtocols(const Bytes& bytes) {
  const std::optional<Announced> announced = readPossible(bytes);
  if (!announced) return 0;
  return announced->protocols == 0 ? 1 : announced->protocols;
}

std::string hexText(const Bytes& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    if (!text.empty()) text += ' ';
    text += toHex(&byte, 1);
  }
  return text;
}

}  // namespace zelta::pcsc
