#include "platform/sync/critical_section.h"

#include <gtest/gtest.h>

#include <thread>

namespace zelta::platform {
namespace {

// The analysis does not know nesting, which this tests.
void enter(CriticalSection& section) ZELTA_NO_THREAD_SAFETY_ANALYSIS { section.enter(); }
bool tryEnter(CriticalSection& section) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
  return section.tryEnter();
}
void leave(CriticalSection& section) ZELTA_NO_THREAD_SAFETY_ANALYSIS { section.leave(); }

bool anotherThreadGetsIn(CriticalSection& section) {
  bool entered = false;
  std::thread([&] {
    entered = tryEnter(section);
    if (entered) leave(section);
  }).join();
  return entered;
}

TEST(CriticalSection, Holder_EntersAgain) {
  CriticalSection section;
  enter(section);
  enter(section);
  ASSERT_TRUE(tryEnter(section));
  for (int i = 0; i < 3; ++i) leave(section);
}

TEST(CriticalSection, AnotherThread_GetsInOnceEveryEntryIsLeft) {
  CriticalSection section;
  EXPECT_TRUE(anotherThreadGetsIn(section));
  enter(section);
  enter(section);
  EXPECT_FALSE(anotherThreadGetsIn(section));
  leave(section);
  EXPECT_FALSE(anotherThreadGetsIn(section));
  leave(section);
  EXPECT_TRUE(anotherThreadGetsIn(section));
}

TEST(CriticalSection, SeveralThreads_AreKeptApart) {
  CriticalSection section;
  int count = 0;
  const auto work = [&] {
    for (int i = 0; i < 10000; ++i) {
      section.enter();
      ++count;
      section.leave();
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(count, 20000);
}

}  // namespace
}  // namespace zelta::platform
