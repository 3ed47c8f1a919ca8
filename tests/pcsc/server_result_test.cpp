#include "pcsc/server_result.h"

#include <gtest/gtest.h>

namespace zelta::pcsc {
namespace {

TEST(ServerResultTest, Code_IsToldWithItsReason) {
  EXPECT_EQ(serverResultText(2), "the folder of its pipes cannot be had (2)");
  EXPECT_EQ(serverResultText(4), "too many files are open (4)");
  EXPECT_EQ(serverResultText(5), "access to its pipes is denied (5)");
  EXPECT_EQ(serverResultText(8), "there is no memory (8)");
  EXPECT_EQ(serverResultText(112), "the disk of its pipes is full (112)");
  EXPECT_EQ(serverResultText(206), "the name of its pipes is too long (206)");
  EXPECT_EQ(serverResultText(5023), "nobody asked for a card within 10 s (5023)");
  EXPECT_EQ(serverResultText(31), "error 31");
}

}  // namespace
}  // namespace zelta::pcsc
