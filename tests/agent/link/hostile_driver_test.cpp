#include "tests/agent/link/hostile_driver.h"

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

TEST(HostileDriver, OfTheCorpus_GetsTheAnswersThatAreDue) {
  EXPECT_GE(playCorpus(ZELTA_SESSION_CORPUS, playHostileDriver), 8);
}

}  // namespace
}  // namespace zelta::test
