#include "agent_link/pipe_handle.h"

#include <gtest/gtest.h>

#include <utility>

#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/scripted_pipes.h"

namespace zelta::test {
namespace {

class PipeHandleTest : public ::testing::Test {
 protected:
  platform::PipeHandleValue create(const std::string& name) { return pipes_.create(name, {}); }

  // "cancel a, disconnect a, ...": all calls except the creations.
  std::string released() const {
    std::string text;
    for (const PipeCall& call : pipes_.calls()) {
      if (call.kind == PipeCallKind::kCancel) text += "cancel " + call.text + ", ";
      if (call.kind == PipeCallKind::kDisconnect) text += "disconnect " + call.text + ", ";
      if (call.kind == PipeCallKind::kClose) text += "close " + call.text + ", ";
    }
    return text;
  }

  ScriptedPipes pipes_;
  ScopedPipes scoped_{pipes_};
};

TEST_F(PipeHandleTest, EveryStepIsTakenWhateverThePreviousOneGave) {
  pipes_.fail(PipeCallKind::kCancel, 1168);
  pipes_.fail(PipeCallKind::kDisconnect, 233);
  pipes_.fail(PipeCallKind::kClose, 6);
  { const PipeHandle pipe(create("a")); }
  EXPECT_EQ(released(), "cancel a, disconnect a, close a, ");
}

TEST_F(PipeHandleTest, TheTwoValuesOfNoPipeAreNotValidAndNotReleased) {
  {
    const PipeHandle none;
    const PipeHandle invalid(platform::invalidPipe());
    EXPECT_FALSE(none.valid());
    EXPECT_FALSE(invalid.valid());
    EXPECT_EQ(none.get(), platform::noPipe());
    EXPECT_EQ(invalid.get(), platform::invalidPipe());
  }
  EXPECT_TRUE(pipes_.calls().empty());
}

TEST_F(PipeHandleTest, MovingInReleasesWhatWasHeldAndLeavesNothingBehind) {
  const platform::PipeHandleValue second = create("b");
  PipeHandle from(second);
  {
    PipeHandle to(create("a"));
    to = std::move(from);
    EXPECT_EQ(released(), "cancel a, disconnect a, close a, ");
    EXPECT_EQ(to.get(), second);
    EXPECT_TRUE(to.valid());
    // NOLINTNEXTLINE(bugprone-use-after-move, clang-analyzer-cplusplus.Move): what moving leaves
    EXPECT_EQ(from.get(), platform::noPipe());
  }
  EXPECT_EQ(released(), "cancel a, disconnect a, close a, cancel b, disconnect b, close b, ");
}

TEST_F(PipeHandleTest, MovingIntoItselfKeepsThePipe) {
  PipeHandle pipe(create("a"));
  PipeHandle& same = pipe;
  pipe = std::move(same);
  EXPECT_TRUE(pipe.valid());
  EXPECT_EQ(released(), "");
}

}  // namespace
}  // namespace zelta::test
