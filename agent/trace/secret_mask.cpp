#include "agent/trace/secret_mask.h"

#include <algorithm>
#include <cstdint>

namespace zelta::agent {

namespace {

constexpr std::size_t kInstructionAt = 1;
constexpr std::size_t kParametersAt = 2;
constexpr std::size_t kLengthAt = 4;
constexpr std::size_t kShortDataAt = 5;
constexpr std::size_t kExtendedDataAt = 7;
constexpr std::size_t kStatusSize = 2;
constexpr std::uint8_t kGetResponse = 0xC0;
constexpr int kAny = -1;

struct Rule {
  std::uint8_t instruction;
  int parameters;  // P1 and P2, or kAny
  bool hidesCommand;
  bool hidesResponse;
};

// In every class: a card's own class may have the instruction with the same meaning.
constexpr Rule kRules[] = {
    {0x20, kAny, true, false},    // VERIFY
    {0x21, kAny, true, false},    // VERIFY, data in BER-TLV
    {0x24, kAny, true, false},    // CHANGE REFERENCE DATA
    {0x25, kAny, true, false},    // CHANGE REFERENCE DATA, data in BER-TLV
    {0x26, kAny, true, false},    // DISABLE VERIFICATION REQUIREMENT
    {0x27, kAny, true, false},    // DISABLE VERIFICATION REQUIREMENT, data in BER-TLV
    {0x28, kAny, true, false},    // ENABLE VERIFICATION REQUIREMENT
    {0x29, kAny, true, false},    // ENABLE VERIFICATION REQUIREMENT, data in BER-TLV
    {0x2C, kAny, true, false},    // RESET RETRY COUNTER
    {0x2D, kAny, true, false},    // RESET RETRY COUNTER, data in BER-TLV
    {0x2A, 0x8082, false, true},  // PERFORM SECURITY OPERATION: DECIPHER
    {0x2A, 0x8084, false, true},  // the same
    {0x2A, 0x8086, false, true},  // the same
    {0x2A, 0x8280, true, false},  // PERFORM SECURITY OPERATION: ENCIPHER
    {0x2A, 0x8480, true, false},  // the same
    {0x2A, 0x8680, true, false},  // the same
    {0x42, kAny, false, true},    // CAC: SIGN/DECRYPT, which deciphers as well
    {0x82, kAny, true, true},     // EXTERNAL AUTHENTICATE, MUTUAL AUTHENTICATE, LOAD KEYS
    {0x86, kAny, true, true},     // GENERAL AUTHENTICATE
    {0x87, kAny, true, true},     // GENERAL AUTHENTICATE, which deciphers on a PIV card
    {0xC2, kAny, true, true},     // ENVELOPE: another command
    {0xC3, kAny, true, true},     // the same, in BER-TLV
    {0xD8, kAny, true, false},    // PUT KEY
    {0xDA, 0x00D1, true, false},  // OpenPGP: PUT DATA, key for secure messaging
    {0xDA, 0x00D2, true, false},  // the same
    {0xDA, 0x00D3, true, false},  // OpenPGP: PUT DATA, resetting code
    {0xDA, 0x00D5, true, false},  // OpenPGP: PUT DATA, AES key
    {0xDA, 0x00F4, true, false},  // OpenPGP: PUT DATA, keys for secure messaging
    {0xDB, kAny, true, false},    // PUT DATA, which imports private keys into an OpenPGP card
    {0xFE, kAny, true, false},    // PIV extension: import of a private key
    {0xFF, kAny, true, false},    // PIV extension: management key
};

const Rule* findRule(const Bytes& command) {
  if (command.size() < kLengthAt) return nullptr;
  const int parameters = command[kParametersAt] << 8 | command[kParametersAt + 1];
  const auto* const found =
      std::find_if(std::begin(kRules), std::end(kRules), [&](const Rule& rule) {
        return rule.instruction == command[kInstructionAt] &&
               (rule.parameters == kAny || rule.parameters == parameters);
      });
  return found == std::end(kRules) ? nullptr : found;
}

// The command's data; all that follows the header if its lengths are not an APDU's.
Hidden commandData(const Bytes& command) {
  if (command.size() <= kShortDataAt) return {};
  const bool extended = command[kLengthAt] == 0 && command.size() > kExtendedDataAt;
  const std::size_t from = extended ? kExtendedDataAt : kShortDataAt;
  const std::size_t size = extended
                               ? std::size_t{command[kShortDataAt]} << 8 | command[kShortDataAt + 1]
                               : std::size_t{command[kLengthAt]};
  const std::size_t end = from + size;
  const std::size_t expectedLength = extended ? 2 : 1;  // bytes of Le, if there is one
  if (size != 0 && end <= command.size() && command.size() <= end + expectedLength) {
    return {from, size};
  }
  return {kLengthAt, command.size() - kLengthAt};
}

Hidden responseData(const Bytes& response) {
  return {0, response.size() > kStatusSize ? response.size() - kStatusSize : 0};
}

}  // namespace

std::string toMaskedHex(const Bytes& bytes, const Hidden& hidden) {
  std::string text = toHex(bytes);
  return text.replace(2 * hidden.from, 2 * hidden.size, 2 * hidden.size, '*');
}

HiddenParts SecretMask::look(const Bytes& command, const Bytes& response) {
  HiddenParts parts;
  const bool continues = command.size() > kInstructionAt && command[kInstructionAt] == kGetResponse;
  const Rule* const rule = findRule(command);
  if (rule != nullptr && rule->hidesCommand) parts.command = commandData(command);
  if (continues ? !hidesNext_ : rule == nullptr || !rule->hidesResponse) {
    hidesNext_ = false;
    return parts;
  }
  hidesNext_ = true;
  parts.response = responseData(response);
  return parts;
}

}  // namespace zelta::agent
