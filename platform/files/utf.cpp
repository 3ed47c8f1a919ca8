// Not iconv, Windows' converter or utfcpp: malformed text must give the same result on both
// systems, and utfcpp throws on lone surrogates and merges several malformed parts into one
// character.
#include "platform/files/utf.h"

#include <cstddef>

namespace zelta::platform {

namespace {

constexpr char32_t kFirstHighSurrogate = 0xD800;
constexpr char32_t kFirstLowSurrogate = 0xDC00;
constexpr char32_t kLastSurrogate = 0xDFFF;
constexpr char32_t kFirstSupplementary = 0x10000;
constexpr unsigned kSurrogateBits = 10;
constexpr char32_t kSurrogateMask = (1U << kSurrogateBits) - 1;

constexpr unsigned kContinuationBits = 6;
constexpr unsigned char kContinuationMask = 0x3F;
constexpr unsigned char kContinuationFirst = 0x80;
constexpr unsigned char kContinuationLast = 0xBF;

// A lead byte's meaning: how many bytes follow, its own bits, and the range of the first that
// follows (which keeps out overlong forms, surrogates and code points beyond U+10FFFF).
//
//   lead      following  first following
//   00..7F    0
//   C2..DF    1          80..BF
//   E0        2          A0..BF
//   E1..EC    2          80..BF
//   ED        2          80..9F
//   EE..EF    2          80..BF
//   F0        3          90..BF
//   F1..F3    3          80..BF
//   F4        3          80..8F
struct Lead {
  unsigned following;
  char32_t bits;
  unsigned char low = kContinuationFirst;
  unsigned char high = kContinuationLast;
  bool valid = true;
};

Lead leadOf(unsigned char byte) {
  if (byte <= 0x7F) return {0, byte};
  if (byte >= 0xC2 && byte <= 0xDF) return {1, static_cast<char32_t>(byte & 0x1F)};
  if (byte >= 0xE0 && byte <= 0xEF) {
    Lead lead{2, static_cast<char32_t>(byte & 0x0F)};
    if (byte == 0xE0) lead.low = 0xA0;
    if (byte == 0xED) lead.high = 0x9F;
    return lead;
  }
  if (byte >= 0xF0 && byte <= 0xF4) {
    Lead lead{3, static_cast<char32_t>(byte & 0x07)};
    if (byte == 0xF0) lead.low = 0x90;
    if (byte == 0xF4) lead.high = 0x8F;
    return lead;
  }
  return {0, 0, 0, 0, false};
}

// One code point at `*at`, which is moved past it.
char32_t decodeUtf8(std::string_view text, std::size_t* at) {
  Lead lead = leadOf(static_cast<unsigned char>(text[(*at)++]));
  if (!lead.valid) return kReplacementCharacter;
  char32_t point = lead.bits;
  for (unsigned i = 0; i < lead.following; ++i) {
    if (*at == text.size()) return kReplacementCharacter;
    const auto next = static_cast<unsigned char>(text[*at]);
    if (next < lead.low || next > lead.high) return kReplacementCharacter;
    point = (point << kContinuationBits) | (next & kContinuationMask);
    lead.low = kContinuationFirst;
    lead.high = kContinuationLast;
    ++*at;
  }
  return point;
}

void appendUtf16(char32_t point, std::u16string* out) {
  if (point < kFirstSupplementary) {
    out->push_back(static_cast<char16_t>(point));
    return;
  }
  const char32_t rest = point - kFirstSupplementary;
  out->push_back(static_cast<char16_t>(kFirstHighSurrogate + (rest >> kSurrogateBits)));
  out->push_back(static_cast<char16_t>(kFirstLowSurrogate + (rest & kSurrogateMask)));
}

char32_t decodeUtf16(std::u16string_view text, std::size_t* at) {
  const char32_t unit = text[(*at)++];
  if (unit < kFirstHighSurrogate || unit > kLastSurrogate) return unit;
  if (unit >= kFirstLowSurrogate || *at == text.size()) return kReplacementCharacter;
  const char32_t low = text[*at];
  if (low < kFirstLowSurrogate || low > kLastSurrogate) return kReplacementCharacter;
  ++*at;
  return kFirstSupplementary + ((unit - kFirstHighSurrogate) << kSurrogateBits) +
         (low - kFirstLowSurrogate);
}

void appendUtf8(char32_t point, std::string* out) {
  const auto continuation = [point](unsigned shift) {
    return static_cast<char>(kContinuationFirst | ((point >> shift) & kContinuationMask));
  };
  if (point < 0x80) {
    out->push_back(static_cast<char>(point));
  } else if (point < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (point >> kContinuationBits)));
    out->push_back(continuation(0));
  } else if (point < kFirstSupplementary) {
    out->push_back(static_cast<char>(0xE0 | (point >> (2 * kContinuationBits))));
    out->push_back(continuation(kContinuationBits));
    out->push_back(continuation(0));
  } else {
    out->push_back(static_cast<char>(0xF0 | (point >> (3 * kContinuationBits))));
    out->push_back(continuation(2 * kContinuationBits));
    out->push_back(continuation(kContinuationBits));
    out->push_back(continuation(0));
  }
}

}  // namespace

std::u16string utf16FromUtf8(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) appendUtf16(decodeUtf8(text, &at), &out);
  return out;
}

std::string utf8FromUtf16(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) appendUtf8(decodeUtf16(text, &at), &out);
  return out;
}

}  // namespace zelta::platform
