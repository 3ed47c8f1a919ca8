#include "diagnostics/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "tests/doubles/logging/log_capture.h"

namespace zelta {
namespace {

using test::error;
using test::info;
using test::LogCapture;
using test::LogRecord;
using testing::ElementsAre;

TEST(LogCalls, EachCall_HasItsLevelCodeAndFilter) {
  LogCapture log;
  logDebug("value %d", 1);
  logInfo("value %s", "two");
  logError(0x80070057, "[IOCT]status %08X", 0xC0000178u);
  logError(kNoError, "no code");
  logMessage(0, 0, "banner %s", "1.0");
  logMessage(4, -7, "%s", "");
  EXPECT_THAT(log.records(),
              ElementsAre(LogRecord{3, 0, "value 1", true}, LogRecord{2, 0, "value two", true},
                          LogRecord{1, -2147024809, "[IOCT]status C0000178", true},
                          LogRecord{1, -500, "no code", true}, LogRecord{0, 0, "banner 1.0", false},
                          LogRecord{4, -7, "", false}));
}

TEST(LogCalls, MessageOfMoreThan255Characters_IsCut) {
  for (const std::size_t length : {254u, 255u, 256u, 300u, 5000u}) {
    LogCapture log;
    const std::string text(length, 'x');
    logInfo("%s", text.c_str());
    EXPECT_THAT(log.records(), ElementsAre(info(text.substr(0, 255)))) << length;
  }
}

TEST(LogCalls, MessageWithAZero_EndsThere) {
  LogCapture log;
  logInfo("before%cafter", '\0');
  EXPECT_THAT(log.records(), ElementsAre(info("before")));
}

TEST(LogCalls, WideTextThatTheLocaleCannotExpress_DoesNotLoseTheMessage) {
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

TEST(LogCalls, FailingLogger_IsNoFailureOfTheCall) {
  LogCapture log;
  log.setHook([](const LogRecord&) { throw std::runtime_error("disk full"); });
  EXPECT_NO_THROW(logDebug("a"));
  EXPECT_NO_THROW(logInfo("b"));
  log.setHook([](const LogRecord&) { throw std::bad_alloc(); });
  EXPECT_NO_THROW(logError(1, "c"));
  EXPECT_NO_THROW(logMessage(0, 0, "d"));
}

}  // namespace
}  // namespace zelta
