#include "tests/agent/remote/any_frames.h"

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

TEST(AnyFrames, OfTheCorpus_EndTheLineInAKnownWay) {
  EXPECT_GE(playCorpus(ZELTA_FRAMES_CORPUS, playAnyFrames), 8);
}

}  // namespace
}  // namespace zelta::test
