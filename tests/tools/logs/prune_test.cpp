#include "tools/logs/prune.h"

#include <gmock/gmock.h>

namespace zelta::logs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kNow = 1'000'000;

// Of 10, 20 and 30 bytes, written to 300, 200 and 100 seconds ago.
const std::vector<LogFile> kFiles = {
    {"a", 10, kNow - 300}, {"b", 20, kNow - 200}, {"c", 30, kNow - 100}};

std::vector<std::string> namesOf(const PruneLimits& limits) {
  std::vector<std::string> names;
  for (const LogFile& file : superfluous(kFiles, limits, kNow)) names.push_back(file.path.string());
  return names;
}

TEST(Superfluous, NoLimit_NoFile) {
  EXPECT_THAT(namesOf({}), IsEmpty());
  EXPECT_THAT(superfluous({}, {1, 1, 1}, kNow), IsEmpty());
}

TEST(Superfluous, MoreFilesThanMayStay_TheOldest) {
  EXPECT_THAT(namesOf({3, {}, {}}), IsEmpty());
  EXPECT_THAT(namesOf({2, {}, {}}), ElementsAre("a"));
  EXPECT_THAT(namesOf({1, {}, {}}), ElementsAre("a", "b"));
}

TEST(Superfluous, FilesNotWrittenToForLong_ThoseFiles) {
  EXPECT_THAT(namesOf({{}, 300, {}}), IsEmpty());
  EXPECT_THAT(namesOf({{}, 299, {}}), ElementsAre("a"));
  EXPECT_THAT(namesOf({{}, 150, {}}), ElementsAre("a", "b"));
}

TEST(Superfluous, MoreBytesThanMayStay_TheOldest) {
  EXPECT_THAT(namesOf({{}, {}, 60}), IsEmpty());
  EXPECT_THAT(namesOf({{}, {}, 59}), ElementsAre("a"));
  EXPECT_THAT(namesOf({{}, {}, 49}), ElementsAre("a", "b"));
}

TEST(Superfluous, NewestFile_StaysWhateverItsSizeAndAge) {
  EXPECT_THAT(namesOf({1, 1, 1}), ElementsAre("a", "b"));
}

TEST(Superfluous, SeveralLimits_EachCounts) {
  EXPECT_THAT(namesOf({3, 250, 60}), ElementsAre("a"));
  EXPECT_THAT(namesOf({2, 1000, 1000}), ElementsAre("a"));
}

TEST(Superfluous, ClockThatWasSetBack_KeepsTheFiles) {
  EXPECT_THAT(superfluous(kFiles, {{}, 1, {}}, 0), IsEmpty());
}

}  // namespace
}  // namespace zelta::logs
