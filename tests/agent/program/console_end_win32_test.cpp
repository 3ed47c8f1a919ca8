#include "agent/platform/console_end_win32.h"

#include <gtest/gtest.h>

namespace zelta::agent {
namespace {

TEST(ConsoleAnswer, everyEventButALogoffEndsTheProgram) {
  EXPECT_EQ(consoleAnswer(CTRL_C_EVENT), ConsoleAnswer::kEnd);
  EXPECT_EQ(consoleAnswer(CTRL_BREAK_EVENT), ConsoleAnswer::kEnd);
  EXPECT_EQ(consoleAnswer(CTRL_CLOSE_EVENT), ConsoleAnswer::kEndAndWait);
  EXPECT_EQ(consoleAnswer(CTRL_SHUTDOWN_EVENT), ConsoleAnswer::kEndAndWait);
  EXPECT_EQ(consoleAnswer(CTRL_LOGOFF_EVENT), ConsoleAnswer::kNotOurs);
}

}  // namespace
}  // namespace zelta::agent
