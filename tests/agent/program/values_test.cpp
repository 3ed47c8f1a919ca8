// Session ids, log lines and back-off: what has no state.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "agent/link/connector.h"
#include "agent/program/log.h"
#include "agent/program/session_id.h"

namespace zelta::agent {
namespace {

TEST(SessionId, freshOnesAreRandomGuids) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string id = newSessionId();
    EXPECT_TRUE(isSessionId(id)) << id;
    EXPECT_EQ(id[14], '4');
    EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos);
    EXPECT_TRUE(seen.insert(id).second);
  }
}

TEST(SessionId, formIsChecked) {
  EXPECT_TRUE(isSessionId("00000000-0000-0000-0000-000000000000"));
  EXPECT_TRUE(isSessionId("ABCDEFab-cdef-0123-4567-89abcdefABCD"));
  for (const char* text :
       {"", "00000000-0000-0000-0000-00000000000", "00000000-0000-0000-0000-0000000000000",
        "0000000000000-0000-0000-000000000000", "g0000000-0000-0000-0000-000000000000"}) {
    EXPECT_FALSE(isSessionId(text)) << text;
  }
}

TEST(Log, dropsWhatIsBelowItsLevel) {
  std::vector<std::string> lines;
  Log log(LogLevel::kWarning, [&](LogLevel level, const std::string& line) {
    lines.push_back(std::string(levelName(level)) + " " + line);
  });
  log.error("1");
  log.warning("2");
  log.info("3");
  log.debug("4");
  EXPECT_EQ(lines, (std::vector<std::string>{"error 1", "warning 2"}));
  EXPECT_FALSE(log.wants(LogLevel::kInfo));
}

TEST(Log, controlCharactersAreMadeVisible) {
  EXPECT_EQ(printable("a\nb\x7f\x1b[c\xC3\xA4"), "a?b??[c\xC3\xA4");
}

TEST(Backoff, doublesUpToItsMost) {
  using std::chrono::milliseconds;
  Backoff backoff(milliseconds(10), milliseconds(50));
  EXPECT_EQ(backoff.next(), milliseconds(10));
  EXPECT_EQ(backoff.next(), milliseconds(20));
  EXPECT_EQ(backoff.next(), milliseconds(40));
  EXPECT_EQ(backoff.next(), milliseconds(50));
  EXPECT_EQ(backoff.next(), milliseconds(50));
  backoff.reset();
  EXPECT_EQ(backoff.next(), milliseconds(10));
}

}  // namespace
}  // namespace zelta::agent
