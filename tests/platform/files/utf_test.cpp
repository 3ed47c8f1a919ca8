#include "platform/files/utf.h"

#include <gtest/gtest.h>

#include <string>

namespace zelta::platform {
namespace {

using namespace std::string_literals;

TEST(Utf, EveryLengthAndItsBoundaries_ConvertBothWays) {
  const std::pair<std::string, std::u16string> boundaries[] = {
      {"", u""},
      {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z", u"a\u00E9\u20AC\U0001F600z"},
      {"\xEF\xBB\xBF", u"\uFEFF"},  // a byte order mark is passed through
      {"\0"s, u"\0"s},
      {"\x7F", u"\u007F"},
      {"\xC2\x80", u"\u0080"},
      {"\xDF\xBF", u"\u07FF"},
      {"\xE0\xA0\x80", u"\u0800"},
      {"\xED\x9F\xBF", u"\uD7FF"},
      {"\xEE\x80\x80", u"\uE000"},
      {"\xEF\xBF\xBF", u"\uFFFF"},
      {"\xF0\x90\x80\x80", u"\U00010000"},
      {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
  };
  for (const auto& [utf8, utf16] : boundaries) {
    EXPECT_EQ(utf16FromUtf8(utf8), utf16);
    EXPECT_EQ(utf8FromUtf16(utf16), utf8);
  }
}

TEST(Utf, EachMaximalPartOfABrokenSequence_IsReplacedOnce) {
  const std::pair<std::string, std::u16string> broken[] = {
      {"\x80", u"\uFFFD"},                      // continuation without a lead
      {"\xBF\xBF", u"\uFFFD\uFFFD"},            // two of them
      {"\xC3", u"\uFFFD"},                      // cut off at the end
      {"\xE2\x82", u"\uFFFD"},                  // cut off after its second byte
      {"\xF0\x9F\x98", u"\uFFFD"},              // cut off after its third byte
      {"\xC3(", u"\uFFFD("},                    // what follows is kept
      {"\xE2\x82(", u"\uFFFD("},                //
      {"\xE2\xC3\xA9", u"\uFFFD\u00E9"},        // a good sequence follows
      {"\xC0\xAF", u"\uFFFD\uFFFD"},            // overlong, two bytes
      {"\xC1\xBF", u"\uFFFD\uFFFD"},            //
      {"\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},  // overlong, three bytes
      {"\xF0\x80\x80\xAF", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // an encoded surrogate
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // beyond U+10FFFF
      {"\xF5\x80", u"\uFFFD\uFFFD"},
      {"\xFE\xFF", u"\uFFFD\uFFFD"},
  };
  for (const auto& [utf8, utf16] : broken) EXPECT_EQ(utf16FromUtf8(utf8), utf16);
}

TEST(Utf, EachLoneSurrogate_IsReplaced) {
  const std::string replacement = "\xEF\xBF\xBD";
  const char16_t high = 0xD83D;
  const char16_t low = 0xDE00;
  EXPECT_EQ(utf8FromUtf16(std::u16string{high}), replacement);
  EXPECT_EQ(utf8FromUtf16(std::u16string{low}), replacement);
  EXPECT_EQ(utf8FromUtf16(std::u16string{high, u'x'}), replacement + "x");
  EXPECT_EQ(utf8FromUtf16(std::u16string{low, high}), replacement + replacement);
  EXPECT_EQ(utf8FromUtf16(std::u16string{high, high, low}), replacement + "\xF0\x9F\x98\x80");
}

TEST(Utf, EveryCodePoint_SurvivesTheWayThereAndBack) {
  for (char32_t point = 1; point <= 0x10FFFF; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    std::u16string utf16;
    if (point < 0x10000) {
      utf16 = static_cast<char16_t>(point);
    } else {
      utf16 = {static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)),
               static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF))};
    }
    ASSERT_EQ(utf16FromUtf8(utf8FromUtf16(utf16)), utf16) << static_cast<std::uint32_t>(point);
  }
}

}  // namespace
}  // namespace zelta::platform
