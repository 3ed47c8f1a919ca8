#include "tests/agent/control/any_control_line.h"

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

TEST(AnyControlLine, OfTheCorpus_HasAnAnswerThatCanBeTrusted) {
  EXPECT_GE(playCorpus(ZELTA_CONTROL_CORPUS, playAnyControlLine), 6);
}

}  // namespace
}  // namespace zelta::test
