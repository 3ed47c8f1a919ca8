#include "driver/device/narrow_text.h"

#include <gtest/gtest.h>

namespace zelta {
namespace {

TEST(NarrowText, LeavesAsciiAsItIs) {
  EXPECT_EQ(narrowText(L""), "");
  EXPECT_EQ(narrowText(L"\\dev0 {x}%s"), "\\dev0 {x}%s");
}

TEST(NarrowText, WritesOtherCharactersAsUtf8) {
  EXPECT_EQ(narrowText(L"\x00E4"), "\xC3\xA4");
  EXPECT_EQ(narrowText(L"\x4E2D"), "\xE4\xB8\xAD");
  EXPECT_EQ(narrowText(L"\U0001F4B3"), "\xF0\x9F\x92\xB3");
}

TEST(NarrowText, ReplacesWhatIsNoCharacter) {
  EXPECT_EQ(narrowText(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
  if (sizeof(wchar_t) > 2) {
    EXPECT_EQ(narrowText(std::wstring(1, static_cast<wchar_t>(0x110000))), "\xEF\xBF\xBD");
    EXPECT_EQ(narrowText(std::wstring(1, static_cast<wchar_t>(0xFFFFFFFF))), "\xEF\xBF\xBD");
  }
}

}  // namespace
}  // namespace zelta
