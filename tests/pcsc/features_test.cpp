#include "pcsc/features.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zelta::pcsc {
namespace {

using testing::ElementsAre;

TEST(FeaturesTest, FeatureRequestNamesThePropertiesCodeInBigEndianOrder) {
  const ControlReply reply = answerControl(0x42000D48);
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_THAT(reply.bytes, ElementsAre(0x12, 4, 0x42, 0x00, 0x08, 0x12));
}

TEST(FeaturesTest, PropertiesSayTheLargestApduInLittleEndianOrder) {
  const ControlReply reply = answerControl(0x42000812);
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_THAT(reply.bytes, ElementsAre(10, 4, 0x00, 0x00, 0x01, 0x00));
}

TEST(FeaturesTest, OtherCodesAreNotSupported) {
  for (const DWORD code : {DWORD{0}, DWORD{0x42000001}, DWORD{0x00313520}, ~DWORD{0}}) {
    EXPECT_EQ(answerControl(code).code, IFD_ERROR_NOT_SUPPORTED) << code;
    EXPECT_TRUE(answerControl(code).bytes.empty());
  }
}

}  // namespace
}  // namespace zelta::pcsc
