#include "tests/agent/card/any_script.h"

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

TEST(AnyScript, OfTheCorpus_IsPlayedOrRefusedWithItsLine) {
  EXPECT_GE(playCorpus(ZELTA_SCRIPT_CORPUS, playAnyScript), 8);
}

}  // namespace
}  // namespace zelta::test
