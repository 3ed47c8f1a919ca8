#include "contract/harmless.h"

#include <gtest/gtest.h>

namespace zelta {
namespace {

TEST(Harmless, TextInUtf8_StaysAsItIs) {
  EXPECT_EQ(harmless(""), "");
  EXPECT_EQ(harmless("a\tb \\ \u00E4\u20AC\U0001F600"), "a\tb \\ \u00E4\u20AC\U0001F600");
}

TEST(Harmless, WhatATerminalObeys_IsEscaped) {
  EXPECT_EQ(harmless("a\nb\r\x1b[2J\x7f"), "a\\x0ab\\x0d\\x1b[2J\\x7f");
  EXPECT_EQ(harmless("\u009B31m"), "\\xc2\\x9b31m");
  EXPECT_EQ(harmless("\u202Etxt\u2066"), "\\xe2\\x80\\xaetxt\\xe2\\x81\\xa6");
}

TEST(Harmless, WhatIsNotUtf8_IsEscaped) {
  EXPECT_EQ(harmless("\x9B \xE4 \xC1\x9B"), "\\x9b \\xe4 \\xc1\\x9b");
}

}  // namespace
}  // namespace zelta
