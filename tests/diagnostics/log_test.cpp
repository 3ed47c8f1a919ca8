#include "diagnostics/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace zelta {
namespace {

using test::debug;
using test::error;
using test::info;
using test::LogCapture;
using test::LogRecord;
using testing::ElementsAre;

TEST(LogCalls, HaveTheirLevelsCodesAndFilters) {
  LogCapture log;
  logDebug("value %d", 1);
  logInfo("value %s", "two");
  logError(0x80070057, "[IOCT]status %08X", 0xC0000178u);
  logError(kNoError, "no code");
  logMessage(0, 0, "banner %s", "1.0");
  logMessage(4, -7, "trace");
  EXPECT_THAT(log.records(),
              ElementsAre(LogRecord{3, 0, "value 1", true}, LogRecord{2, 0, "value two", true},
                          LogRecord{1, -2147024809, "[IOCT]status C0000178", true},
                          LogRecord{1, -500, "no code", true}, LogRecord{0, 0, "banner 1.0", false},
                          LogRecord{4, -7, "trace", false}));
}

TEST(LogCalls, CutAMessageTo255Characters) {
  for (const std::size_t length : {254u, 255u, 256u, 300u, 5000u}) {
    LogCapture log;
    const std::string text(length, 'x');
    logInfo("%s", text.c_str());
    EXPECT_THAT(log.records(), ElementsAre(info(text.substr(0, 255)))) << length;
  }
}

TEST(LogCalls, CutAtTheFirstZero) {
  LogCapture log;
  logInfo("before%cbehind", '\0');
  EXPECT_THAT(log.records(), ElementsAre(info("before")));
}

TEST(LogCalls, EmptyMessageIsARecord) {
  LogCapture log;
  logDebug("%s", "");
  EXPECT_THAT(log.records(), ElementsAre(debug("")));
}

TEST(LogCalls, WideTextThatTheLocaleCannotExpressDoesNotLoseTheMessage) {
  LogCapture log;  // the tests run in the C locale
  logInfo("name %ls", L"dev0");
  logError(5, "name %ls", L"\x4E2D");
#if defined(_WIN32)
  constexpr char kRest[] = "name ";  // the formatter leaves the character out
#else
  constexpr char kRest[] = "name %ls";
#endif
  EXPECT_THAT(log.records(), ElementsAre(info("name dev0"), error(5, kRest)));
}

TEST(LogCalls, ReportNoFailureOfTheLogger) {
  LogCapture log;
  log.setHook([](const LogRecord&) { throw std::runtime_error("disk full"); });
  EXPECT_NO_THROW(logDebug("a"));
  EXPECT_NO_THROW(logInfo("b"));
  log.setHook([](const LogRecord&) { throw std::bad_alloc(); });
  EXPECT_NO_THROW(logError(1, "c"));
  EXPECT_NO_THROW(logMessage(0, 0, "d"));
}

TEST(LogCalls, OfSeveralThreadsAllArriveWhole) {
  LogCapture log;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 250; ++i) logInfo("thread %d record %d", thread, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log.records().size(), 1000u);
  for (int thread = 0; thread < 4; ++thread) {
    for (int i = 0; i < 250; ++i) {
      EXPECT_EQ(log.count("thread " + std::to_string(thread) + " record " + std::to_string(i)), 1u);
    }
  }
}

}  // namespace
}  // namespace zelta
