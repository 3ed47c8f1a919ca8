#include "agent/program/session_id.h"

#include <gtest/gtest.h>

#include <set>

namespace zelta::agent {
namespace {

TEST(SessionId, FreshOnes_AreRandomGuids) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string id = newSessionId();
    EXPECT_TRUE(isSessionId(id)) << id;
    EXPECT_EQ(id[14], '4');
    EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos);
    EXPECT_TRUE(seen.insert(id).second);
  }
}

TEST(SessionId, TextOfAnotherForm_IsNone) {
  EXPECT_TRUE(isSessionId("00000000-0000-0000-0000-000000000000"));
  EXPECT_TRUE(isSessionId("ABCDEFab-cdef-0123-4567-89abcdefABCD"));
  for (const char* text :
       {"", "00000000-0000-0000-0000-00000000000", "00000000-0000-0000-0000-0000000000000",
        "0000000000000-0000-0000-000000000000", "g0000000-0000-0000-0000-000000000000"}) {
    EXPECT_FALSE(isSessionId(text)) << text;
  }
}

}  // namespace
}  // namespace zelta::agent
