#include "agent/program/failure.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/agent/running_agent.h"

namespace zelta::agent {
namespace {

TEST(Guarded, BodyThatEndsWell_IsNoFailure) {
  bool ran = false;
  guarded(test::failTest, [&ran] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(Guarded, Exception_IsToldByItsText) {
  std::string told;
  const OnFailure onFailure = [&told](const char* problem) { told += problem; };
  guarded(onFailure, [] { throw std::runtime_error("no luck"); });
  EXPECT_EQ(told, "no luck");
}

TEST(Guarded, AnythingElseThrown_IsAnUnknownException) {
  std::string told;
  const OnFailure onFailure = [&told](const char* problem) { told += problem; };
  guarded(onFailure, [] { throw 1; });
  EXPECT_EQ(told, "an unknown exception");
}

TEST(FailureNote, TwoFailures_KeepTheFirstAndWakeOnce) {
  int wakes = 0;
  FailureNote note([&wakes] { ++wakes; });
  EXPECT_EQ(note.problem(), nullptr);
  note.take("first");
  note.take("second");
  ASSERT_NE(note.problem(), nullptr);
  EXPECT_EQ(std::string(note.problem()), "first");
  EXPECT_EQ(wakes, 1);
}

TEST(FailureNote, LongText_IsCutOff) {
  FailureNote note([] {});
  note.take(std::string(1000, 'x').c_str());
  ASSERT_NE(note.problem(), nullptr);
  EXPECT_EQ(std::string(note.problem()), std::string(255, 'x'));
}

}  // namespace
}  // namespace zelta::agent
