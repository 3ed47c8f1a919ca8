// Where the driver's log goes and what it holds: the log directory and the event filter mode.
#include <gtest/gtest.h>

#include <optional>

#include "diagnostics/logging_facade.h"
#include "tests/doubles/registry/fake_registry.h"
#include "tests/support/fake_folders.h"
#include "tests/support/logging_ports.h"

namespace zelta {
namespace {

using test::kFilterMode;
using test::kPolicy;
using test::kPolicyDefaults;

TEST(LogDirectory, IsTheAgentsBelowProgramData) {
  test::FakeFolders folders;
  folders.programDataPath = u"C:\\ProgramData";
  EXPECT_EQ(resolveLogDirectory(folders), u"C:\\ProgramData\\Vornhalt\\ZeltaAgent\\logs\\");
  EXPECT_EQ(folders.unfreed(), 0u);
  EXPECT_EQ(folders.tempPathCalls(), 0u);
}

TEST(LogDirectory, KeepsOtherAlphabetsAndLongPathsOfProgramData) {
  test::FakeFolders folders;
  folders.programDataPath = u"C:\\\u00C4\U0001F0CF" + std::u16string(300, u'x');
  EXPECT_EQ(resolveLogDirectory(folders),
            *folders.programDataPath + u"\\Vornhalt\\ZeltaAgent\\logs\\");
}

TEST(LogDirectory, EmptyProgramDataIsTheRoot) {
  test::FakeFolders folders;
  folders.programDataPath = u"";
  EXPECT_EQ(resolveLogDirectory(folders), u"\\Vornhalt\\ZeltaAgent\\logs\\");
  EXPECT_EQ(folders.unfreed(), 0u);
}

TEST(LogDirectory, WithoutProgramDataIsTheTemporaryPathWithASecondBackslash) {
  test::FakeFolders folders;
  folders.temporaryPath = u"X:\\T\\";
  folders.currentPath = u"X:\\C";
  EXPECT_EQ(resolveLogDirectory(folders) + u"zelta_vsc", u"X:\\T\\\\zelta_vsc");
  EXPECT_EQ(folders.lastCapacity(), 261u);
  EXPECT_EQ(folders.currentDirectoryCalls(), 0u);
}

TEST(LogDirectory, WithoutATemporaryPathIsTheCurrentDirectory) {
  test::FakeFolders folders;
  folders.currentPath = u"X:\\C";
  EXPECT_EQ(resolveLogDirectory(folders), u"X:\\C\\");
  EXPECT_EQ(folders.lastCapacity(), 261u);
}

TEST(LogDirectory, WithoutAnyIsEmpty) {
  test::FakeFolders folders;
  EXPECT_EQ(resolveLogDirectory(folders), u"");
  EXPECT_EQ(folders.currentDirectoryCalls(), 1u);
}

TEST(LogDirectory, FallbackHas259CharactersAtMost) {
  test::FakeFolders folders;
  folders.temporaryPath = std::u16string(259, u'x');
  EXPECT_EQ(resolveLogDirectory(folders), std::u16string(259, u'x') + u'\\');
  folders.temporaryPath = std::u16string(260, u'x');
  EXPECT_EQ(resolveLogDirectory(folders), u"");
  folders.temporaryPath = std::u16string(400, u'x');  // beyond the buffer
  EXPECT_EQ(resolveLogDirectory(folders), u"");
  folders.temporaryPath = u"x";
  EXPECT_EQ(resolveLogDirectory(folders), u"x\\");
}

TEST(LogDirectory, CurrentDirectoryHas259CharactersAtMost) {
  test::FakeFolders folders;
  folders.currentPath = std::u16string(259, u'x');
  EXPECT_EQ(resolveLogDirectory(folders), std::u16string(259, u'x') + u'\\');
  folders.currentPath = std::u16string(260, u'x');
  EXPECT_EQ(resolveLogDirectory(folders), u"");
}

using Mode = std::optional<std::uint32_t>;

std::uint32_t modeWith(Mode policy, Mode defaults) {
  test::FakeRegistry registry;
  if (policy.has_value()) registry.setDword(kPolicy, kFilterMode, *policy);
  if (defaults.has_value()) registry.setDword(kPolicyDefaults, kFilterMode, *defaults);
  return readEventFilterMode(registry);
}

TEST(EventFilterMode, WithoutAKeyIsInfo) { EXPECT_EQ(modeWith({}, {}), 2u); }

TEST(EventFilterMode, EachValueOfEitherKeyCounts) {
  for (std::uint32_t mode = 0; mode <= 3; ++mode) {
    EXPECT_EQ(modeWith(mode, {}), mode);
    EXPECT_EQ(modeWith({}, mode), mode);
  }
}

TEST(EventFilterMode, PolicyComesBeforeDefaults) {
  EXPECT_EQ(modeWith(1, 3), 1u);
  EXPECT_EQ(modeWith(0, 3), 0u);
  EXPECT_EQ(modeWith(3, 0), 3u);
}

TEST(EventFilterMode, PolicyOutOfRangeFallsThroughToDefaults) {
  EXPECT_EQ(modeWith(7, 3), 3u);
  EXPECT_EQ(modeWith(4, 0), 0u);
  EXPECT_EQ(modeWith(0xFFFFFFFF, 1), 1u);
  EXPECT_EQ(modeWith(7, {}), 2u);
}

TEST(EventFilterMode, DefaultsOutOfRangeAreInfo) {
  EXPECT_EQ(modeWith({}, 4), 2u);
  EXPECT_EQ(modeWith({}, 0xFFFFFFFF), 2u);
  EXPECT_EQ(modeWith(7, 9), 2u);
}

TEST(EventFilterMode, ValueOfAnotherTypeCountsAsNone) {
  test::FakeRegistry registry;
  registry.setText(kPolicy, kFilterMode, u"1");
  EXPECT_EQ(readEventFilterMode(registry), 2u);
  registry.setDword(kPolicyDefaults, kFilterMode, 3);
  EXPECT_EQ(readEventFilterMode(registry), 3u);
}

TEST(EventFilterMode, FailingRegistryIsInfo) {
  test::FakeRegistry registry;
  registry.setDword(kPolicy, kFilterMode, 0);
  registry.fail(test::FakeRegistry::Call::kGetDword, 5);
  EXPECT_EQ(readEventFilterMode(registry), 2u);
}

}  // namespace
}  // namespace zelta
