#include "platform/registry_content.h"

#include <gtest/gtest.h>

#include "platform/registry.h"

namespace zelta::platform {
namespace {

void setNumber(RegistryContent* content, std::u16string_view key, std::u16string_view name,
               std::uint32_t value) {
  content->createKey(key)[foldName(name)] = {kRegDword, registryDword(value)};
}

using Bytes = std::vector<std::uint8_t>;

TEST(RegistryContent, TextDataAreUtf16LittleEndianWithATerminatingZeroUnit) {
  EXPECT_EQ(registryText(u""), (Bytes{0, 0}));
  EXPECT_EQ(registryText(u"a\u20AC"), (Bytes{'a', 0, 0xAC, 0x20, 0, 0}));
}

TEST(RegistryContent, NumbersAreLittleEndian) {
  EXPECT_EQ(registryDword(0x01020304), (Bytes{4, 3, 2, 1}));
}

TEST(RegistryContent, NamesFoldBeyondAscii) {
  EXPECT_EQ(foldName(u"ABZ_09az"), u"abz_09az");
  EXPECT_EQ(foldName(u"\u00C0\u00D6\u00D8\u00DE"), u"\u00E0\u00F6\u00F8\u00FE");
  EXPECT_EQ(foldName(u"\u0100\u0139\u014A\u0178\u0179"), u"\u0101\u013A\u014B\u0178\u017A");
  EXPECT_EQ(foldName(u"\u0391\u03A9\u0401\u0416\u042F"), u"\u03B1\u03C9\u0451\u0436\u044F");
  // Signs between the letters, small letters, and scripts without case stay.
  EXPECT_EQ(foldName(u"\u00D7\u00F7\u00E9\u0101\u03B1\u0436\u4E2D"),
            u"\u00D7\u00F7\u00E9\u0101\u03B1\u0436\u4E2D");
}

TEST(RegistryContent, KeysExistWhereCreatedOrOnTheWay) {
  RegistryContent content;
  content.createKey(u"A\\B\\C");
  EXPECT_TRUE(content.hasKey(u"A\\B\\C"));
  EXPECT_TRUE(content.hasKey(u"a\\b"));
  EXPECT_TRUE(content.hasKey(u"A"));
  EXPECT_TRUE(content.hasKey(u"A\\"));
  EXPECT_TRUE(content.hasKey(u""));
  EXPECT_FALSE(content.hasKey(u"B"));
  EXPECT_FALSE(content.hasKey(u"A\\B\\C\\D"));
  EXPECT_FALSE(
      content.hasKey(u"A\\B\\"
                     u"\\C"));
  EXPECT_FALSE(content.hasKey(std::u16string_view(u"A\0B", 3)));
}

TEST(RegistryContent, ANameThatOnlyBeginsTheSameIsAnotherKey) {
  RegistryContent content;
  content.createKey(u"A\\Bee");
  EXPECT_FALSE(content.hasKey(u"A\\B"));
  content.createKey(u"A\\B!");
  content.createKey(u"A\\B\\C");
  content.deleteKey(u"A\\B");
  EXPECT_FALSE(content.hasKey(u"A\\B"));
  EXPECT_TRUE(content.hasKey(u"A\\B!"));
  EXPECT_TRUE(content.hasKey(u"A\\Bee"));
}

TEST(RegistryContent, DeletingTakesEverythingBelowAndLeavesTheParent) {
  RegistryContent content;
  setNumber(&content, u"A\\B", u"x", 1);
  setNumber(&content, u"A\\B\\C", u"x", 1);
  content.deleteKey(u"a\\b");
  EXPECT_FALSE(content.hasKey(u"A\\B\\C"));
  EXPECT_FALSE(content.hasKey(u"A\\B"));
  EXPECT_TRUE(content.hasKey(u"A"));
  content.deleteKey(u"A\\Never");
  EXPECT_TRUE(content.hasKey(u"A"));
  content.deleteKey(u"A");
  EXPECT_FALSE(content.hasKey(u"A"));
}

TEST(RegistryContent, ValuesAreFoundWithoutCase) {
  RegistryContent content;
  setNumber(&content, u"Key", u"Name", 5);
  ASSERT_NE(content.find(u"KEY", u"NAME"), nullptr);
  EXPECT_EQ(content.find(u"key", u"name")->data, registryDword(5));
  EXPECT_EQ(content.find(u"key", u"other"), nullptr);
  EXPECT_EQ(content.find(u"other", u"name"), nullptr);
}

TEST(RegistryContent, SubtreesDifferByValueDataTypeNameAndSubkey) {
  RegistryContent first;
  setNumber(&first, u"A\\B", u"x", 1);
  RegistryContent second = first;
  EXPECT_TRUE(first.sameSubtree(second, u"A"));

  setNumber(&second, u"A\\B", u"x", 2);
  EXPECT_FALSE(first.sameSubtree(second, u"A"));
  EXPECT_FALSE(first.sameSubtree(second, u"A\\B"));
  EXPECT_FALSE(first.sameSubtree(second, u""));

  second = first;
  second.createKey(u"A\\B")[u"x"].type = kRegBinary;
  EXPECT_FALSE(first.sameSubtree(second, u"A"));

  second = first;
  setNumber(&second, u"A\\B", u"y", 1);
  EXPECT_FALSE(first.sameSubtree(second, u"A"));

  second = first;
  second.createKey(u"A\\B\\C");
  EXPECT_FALSE(first.sameSubtree(second, u"A"));
  EXPECT_FALSE(second.sameSubtree(first, u"A"));
}

TEST(RegistryContent, ChangesElsewhereLeaveASubtreeTheSame) {
  RegistryContent first;
  setNumber(&first, u"A\\B", u"x", 1);
  RegistryContent second = first;
  setNumber(&second, u"A", u"x", 1);
  setNumber(&second, u"A\\B!", u"x", 1);
  setNumber(&second, u"A\\Bee", u"x", 1);
  setNumber(&second, u"A\\A", u"x", 1);
  EXPECT_TRUE(first.sameSubtree(second, u"A\\B"));
  EXPECT_TRUE(first.sameSubtree(second, u"a\\b\\"));
  EXPECT_FALSE(first.sameSubtree(second, u"A"));
}

TEST(RegistryContent, AnAbsentKeyIsTheSameAsAnAbsentOneAlone) {
  RegistryContent empty;
  RegistryContent content;
  content.createKey(u"A");
  EXPECT_TRUE(empty.sameSubtree(content, u"B"));
  EXPECT_FALSE(empty.sameSubtree(content, u"A"));
  EXPECT_FALSE(content.sameSubtree(empty, u"A"));
}

TEST(RegistryContent, AParentWrittenDownIsTheSameAsOneThatIsOnlyOnTheWay) {
  RegistryContent first;
  setNumber(&first, u"A\\B\\C", u"x", 1);
  RegistryContent second = first;
  second.createKey(u"A");
  second.createKey(u"A\\B");
  EXPECT_TRUE(first.sameSubtree(second, u"A"));
  EXPECT_TRUE(second.sameSubtree(first, u""));
  // Once nothing is below them any more they are not.
  second.deleteKey(u"A\\B\\C");
  first.deleteKey(u"A");
  EXPECT_FALSE(first.sameSubtree(second, u"A"));
}

}  // namespace
}  // namespace zelta::platform
