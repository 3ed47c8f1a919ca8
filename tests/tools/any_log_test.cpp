#include "tests/tools/any_log.h"

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

TEST(AnyLog, OfTheCorpus_IsShownAsItIsOrHarmless) {
  EXPECT_GE(playCorpus(ZELTA_LOG_CORPUS, playAnyLog), 8);
}

}  // namespace
}  // namespace zelta::test
