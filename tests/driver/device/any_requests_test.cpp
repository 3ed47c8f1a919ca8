#include "tests/driver/device/any_requests.h"

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

TEST(AnyRequests, OfTheCorpus_AreCompletedOnce) {
  EXPECT_GE(playCorpus(ZELTA_IO_CONTROL_CORPUS, playAnyRequests), 8);
}

}  // namespace
}  // namespace zelta::test
