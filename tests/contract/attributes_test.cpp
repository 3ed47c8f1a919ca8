#include "contract/attributes.h"

#include <gtest/gtest.h>

#include <set>

namespace zelta {
namespace {

TEST(Attributes, EveryTag_IsListedOnceAndFound) {
  std::set<std::uint32_t> tags;
  for (const Attribute& attribute : kAttributes) {
    EXPECT_TRUE(tags.insert(attribute.tag).second) << attribute.name;
    EXPECT_EQ(findAttribute(attribute.tag), &attribute);
  }
}

TEST(Attributes, UnknownTag_IsNotFound) {
  EXPECT_EQ(findAttribute(0), nullptr);
  EXPECT_EQ(findAttribute(SCARD_ATTR_DEVICE_IN_USE), nullptr);
}

TEST(Attributes, AttributesThatAreNoQuantities_HaveNoUnit) {
  for (const Attribute& attribute : kAttributes) {
    if (attribute.kind != AttributeKind::kQuantity) {
      EXPECT_STREQ(attribute.unit, "") << attribute.name;
    }
  }
}

}  // namespace
}  // namespace zelta
