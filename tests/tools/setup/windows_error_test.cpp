#include "tools/setup/windows_error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace zelta::setup {
namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

std::string textOf(DWORD number) { return WindowsError("cannot do it", number).what(); }

TEST(WindowsError, SmallNumber_IsShownWithWindowsOwnText) {
  const std::string text = textOf(ERROR_ACCESS_DENIED);
  EXPECT_THAT(text, StartsWith("cannot do it: Access "));
  EXPECT_THAT(text, EndsWith(" (5)"));
}

TEST(WindowsError, NumberOfASignaturesFailure_IsShownWithWhatToLookFor) {
  EXPECT_EQ(textOf(0x800B0109),
            "cannot do it: the catalog's certificate is not trusted on this machine (0x800B0109)");
  EXPECT_EQ(textOf(0xE000022F),
            "cannot do it: the package has no catalog, or the catalog is not signed (0xE000022F)");
}

TEST(WindowsError, FailedCall_ThrowsTheLastError) {
  SetLastError(ERROR_FILE_NOT_FOUND);
  EXPECT_NO_THROW(require(TRUE, "fine"));
  try {
    require(FALSE, "cannot do it");
    FAIL();
  } catch (const WindowsError& error) {
    EXPECT_EQ(error.number(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  }
}

TEST(WindowsError, Text_KeepsItsLettersBothWays) {
  EXPECT_EQ(utf8(wide("Zelta \xC3\xA4 \xF0\x9F\x98\x80")), "Zelta \xC3\xA4 \xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace zelta::setup
