#include "diagnostics/traced_lock.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <future>
#include <regex>
#include <string>
#include <thread>

#include "tests/doubles/logging/log_capture.h"

namespace zelta {
namespace {

using platform::CriticalSection;
using test::debug;
using test::LogCapture;
using test::LogRecord;

std::string trace(const char* what, const char* function, int line, const void* object,
                  const CriticalSection& lock) {
  char buffer[200];
  (void)std::snprintf(buffer, sizeof buffer, "%s: Function:%s, Line:%i, Object:%p, Lock:%p", what,
                      function, line, object, static_cast<const void*>(&lock));
  return buffer;
}

bool isElapsed(const LogRecord& record) {
  return record.level == 3 && std::regex_match(record.text, std::regex("Elapsed:[0-9]+ ms"));
}

// Holds a lock, without a trace, until another thread has to wait for it.
class Holder {
 public:
  Holder(LogCapture& log, CriticalSection& lock, const std::string& untilRecord)
      : thread_([this, &log, &lock, untilRecord]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
          lock.enter();
          held_.set_value();
          EXPECT_TRUE(log.waitFor(untilRecord));
          lock.leave();
        }) {
    held_.get_future().wait();
  }
  ~Holder() { thread_.join(); }

 private:
  std::promise<void> held_;
  std::thread thread_;
};

TEST(TracedLock, Uncontended_WritesNothing) {
  LogCapture log;
  CriticalSection lock;
  { const TracedLock held("CMyDevice::OnCancel", lock, 1); }
  EXPECT_TRUE(log.records().empty());
}

TEST(TracedLock, NestedByItsHolder_WritesNothing) {
  LogCapture log;
  CriticalSection lock;
  CriticalSection* again = &lock;
  const auto inner = [again] { const TracedLock nested("inner", *again, 2); };
  {
    const TracedLock outer("outer", lock, 1);
    inner();
    std::thread([&] {
      bool free = again->tryEnter();
      EXPECT_FALSE(free) << "the inner release let go of the outer lock";
      if (free) again->leave();
    }).join();
  }
  EXPECT_TRUE(log.records().empty());
}

TEST(TracedLock, Contended_ReportsLockingElapsedAndUnlocking) {
  LogCapture log;
  CriticalSection lock;
  const int object = 0;
  const std::string locking = trace("Locking", "Reader::IoSmartCardPower", 17, &object, lock);
  {
    const Holder holder(log, lock, locking);
    const TracedLock contender("Reader::IoSmartCardPower", lock, 17, &object);
    EXPECT_EQ(log.records().size(), 2u);
  }
  const auto records = log.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0], debug(locking));
  EXPECT_TRUE(isElapsed(records[1])) << records[1];
  EXPECT_EQ(records[2], debug(trace("Unlocking", "Reader::IoSmartCardPower", 17, &object, lock)));
}

TEST(TracedLock, TwoContendedLocks_OnlyTheLaterOnesReleaseIsReported) {
  LogCapture log;
  CriticalSection earlier;
  CriticalSection later;
  {
    const Holder holdsEarlier(log, earlier, trace("Locking", "first", 1, nullptr, earlier));
    const Holder holdsLater(log, later, trace("Locking", "second", 2, nullptr, later));
    const TracedLock first("first", earlier, 1);
    const TracedLock second("second", later, 2);
    log.clear();
  }  // released in the opposite order: the later one was contended last
  const auto records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], debug(trace("Unlocking", "second", 2, nullptr, later)));
}

TEST(TracedLock, ContendedWithoutAnObject_ReportsANullPointerAndNothingTheNextTime) {
  LogCapture log;
  CriticalSection lock;
  const std::string locking = trace("Locking", "f", 1, nullptr, lock);
  {
    const Holder holder(log, lock, locking);
    const TracedLock contender("f", lock, 1);
  }
  EXPECT_EQ(log.records().front(), debug(locking));
  log.clear();
  { const TracedLock later("f", lock, 2); }
  EXPECT_TRUE(log.records().empty());
}

}  // namespace
}  // namespace zelta
