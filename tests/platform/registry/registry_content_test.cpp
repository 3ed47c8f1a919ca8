#include "platform/registry/registry_file.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/registry/registry.h"

namespace zelta::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

RegistryContent withKeys(const std::vector<std::u16string>& keys) {
  RegistryContent content;
  for (const std::u16string& key : keys) content.createKey(key)[u"x"] = {kRegDword, {}};
  return content;
}

TEST(RegistryContent, TextAndNumber_AreStoredLittleEndianTheTextWithAZeroUnit) {
  EXPECT_EQ(registryText(u""), (Bytes{0, 0}));
  EXPECT_EQ(registryText(u"a\u20AC"), (Bytes{'a', 0, 0xAC, 0x20, 0, 0}));
  EXPECT_EQ(registryDword(0x01020304), (Bytes{4, 3, 2, 1}));
}

TEST(RegistryContent, CapitalsOfAsciiAndLatin1_FoldAndOthersStay) {
  EXPECT_EQ(foldName(u"@ABZ[_09az"), u"@abz[_09az");
  EXPECT_EQ(foldName(u"\u00BF\u00C0\u00D6\u00D8\u00DE"), u"\u00BF\u00E0\u00F6\u00F8\u00FE");
  const std::u16string others = u"\u00D7\u00DF\u00E9\u00F7\u0100\u0391\u0416\u4E2D";
  EXPECT_EQ(foldName(others), others);
}

TEST(RegistryContent, KeyOnTheWayToAnother_Exists) {
  const RegistryContent content = withKeys({u"A\\B\\C"});
  for (const auto* path : {u"A\\B\\C", u"a\\b", u"A", u"A\\", u""}) {
    EXPECT_TRUE(content.hasKey(path));
  }
  for (const auto* path : {u"B", u"A\\B\\C\\D", u"A\\\\B"}) EXPECT_FALSE(content.hasKey(path));
  EXPECT_TRUE(RegistryContent().hasKey(u""));
}

TEST(RegistryContent, NamesOfKeyAndValue_CompareWithoutCase) {
  RegistryContent content;
  content.createKey(u"Key")[foldName(u"Name")] = {kRegDword, registryDword(5)};
  ASSERT_NE(content.find(u"KEY", u"NAME"), nullptr);
  EXPECT_EQ(content.find(u"key", u"name")->data, registryDword(5));
  EXPECT_EQ(content.find(u"key", u"other"), nullptr);
  EXPECT_EQ(content.find(u"other", u"name"), nullptr);
}

TEST(RegistryContent, DeletedKey_GoesWithEverythingBelowAndLeavesParentAndSiblings) {
  RegistryContent content = withKeys({u"A\\B\\C", u"A\\B!", u"A\\Bee"});
  content.deleteKey(u"a\\b");
  EXPECT_FALSE(content.hasKey(u"A\\B"));
  EXPECT_TRUE(content.hasKey(u"A\\B!"));
  EXPECT_TRUE(content.hasKey(u"A\\Bee"));
  content.deleteKey(u"A\\B!");
  content.deleteKey(u"A\\Bee");
  content.deleteKey(u"A\\Never");
  EXPECT_TRUE(content.hasKey(u"A"));
}

TEST(RegistryContent, ChangeAtOrBelowAKey_MakesItsSubtreeAnother) {
  using Change = std::function<void(RegistryContent&)>;
  const Change changes[] = {
      [](RegistryContent& content) { content.createKey(u"A\\B")[u"x"].data = {1}; },
      [](RegistryContent& content) { content.createKey(u"A\\B")[u"x"].type = kRegBinary; },
      [](RegistryContent& content) { content.createKey(u"A\\B")[u"y"] = {}; },
      [](RegistryContent& content) { content.createKey(u"A\\B").clear(); },
      [](RegistryContent& content) { content.createKey(u"A\\B\\C"); },
      [](RegistryContent& content) { content.deleteKey(u"A\\B"); },
  };
  const RegistryContent before = withKeys({u"A\\B"});
  EXPECT_TRUE(before.sameSubtree(withKeys({u"a\\b"}), u"A"));
  for (const Change& change : changes) {
    RegistryContent after = before;
    change(after);
    for (const auto* path : {u"A\\B", u"a\\", u""}) {
      EXPECT_FALSE(before.sameSubtree(after, path)) << &change - changes;
      EXPECT_FALSE(after.sameSubtree(before, path)) << &change - changes;
    }
  }
}

TEST(RegistryContent, ChangeElsewhere_LeavesASubtreeTheSame) {
  const RegistryContent before = withKeys({u"A\\B"});
  const RegistryContent after = withKeys({u"A", u"A\\A", u"A\\B", u"A\\B!", u"A\\Bee", u"C"});
  EXPECT_TRUE(before.sameSubtree(after, u"a\\b\\"));
  EXPECT_TRUE(before.sameSubtree(after, u"absent"));
  EXPECT_FALSE(before.sameSubtree(after, u"A"));
}

}  // namespace
}  // namespace zelta::platform
