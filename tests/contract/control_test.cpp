#include "contract/control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

using test::ScopedVariable;

TEST(DefaultControlPaths, RuntimeFolderOfTheUser_IsFirst) {
  const ScopedVariable set("XDG_RUNTIME_DIR", "/run/user/7");
  EXPECT_THAT(defaultControlPaths(12),
              testing::ElementsAre("/run/user/7/zelta-agent12.ctl", "/run/zelta/agent12.ctl",
                                   "/run/zelta-agent12/control"));
}

TEST(DefaultControlPaths, NoRuntimeFolder_LeavesTheSystemsFolders) {
  const ScopedVariable set("XDG_RUNTIME_DIR", "");
  EXPECT_THAT(defaultControlPaths(0),
              testing::ElementsAre("/run/zelta/agent0.ctl", "/run/zelta-agent0/control"));
}

TEST(DefaultControlPipes, PipeOfTheService_IsFirst) {
  EXPECT_THAT(defaultControlPipes(12),
              testing::ElementsAre("\\\\.\\pipe\\ProtectedPrefix\\LocalService\\zelta-agent12",
                                   "\\\\.\\pipe\\zelta-agent12"));
}

TEST(ControlLinkPath, IsBesideThePipes) {
  EXPECT_EQ(controlLinkPath("/run/zelta/pipe", 0), "/run/zelta/pipe-agent0");
}

struct AnswerRow {
  const char* name;
  const char* answer;
  bool cardIsIn;  // in reader 7
};

const AnswerRow kAnswers[] = {
    {"CardIn", "ok\n{\"reader\":7,\"connected\":false,\"card\":\"in\",\"atr\":null}\n", true},
    {"InAnyOrder", "ok\n{\"card\":\"in\",\"reader\":7}\n", true},
    {"CardOut", "ok\n{\"reader\":7,\"connected\":true,\"card\":\"out\",\"atr\":null}\n", false},
    {"AnotherReader", "ok\n{\"reader\":70,\"card\":\"in\"}\n", false},
    {"TextThatQuotesIt", R"(ok
{"reader":7,"backend":"\"card\":\"in\",","card":"out"})",
     false},
    {"Error", "error: {\"reader\":7,\"card\":\"in\"}\n", false},
    {"HalfOfIt", "ok\n{\"reader\":7,\"card\":\"in\"", false},
    {"Nothing", "", false},
};

class ControlAnswer : public testing::TestWithParam<AnswerRow> {};

TEST_P(ControlAnswer, SaysWhetherACardIsIn) {
  EXPECT_EQ(saysCardIsIn(GetParam().answer, 7), GetParam().cardIsIn);
}

INSTANTIATE_TEST_SUITE_P(Answers, ControlAnswer, testing::ValuesIn(kAnswers),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta
