#include "tests/pcsc/any_calls.h"

#include <gtest/gtest.h>

#include "tests/support/fuzz_input.h"

namespace zelta::test {
namespace {

TEST(AnyCalls, OfTheCorpus_KeepTheHandlersRules) {
  EXPECT_GE(playCorpus(ZELTA_HANDLER_CORPUS, playAnyCalls), 5);
}

}  // namespace
}  // namespace zelta::test
