#include "logging/file_logger_windows.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <limits>
#include <memory>
#include <thread>

#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {
namespace {

namespace fs = std::filesystem;
using test::kAgentKey;
using test::kMarchTime;
using test::kRotationTime;
using test::recordsIn;
using test::recordsOf;
using test::summaries;
using Notify = test::FakeRegistry::Call;
using Texts = std::vector<std::string>;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr std::int64_t kMinute = 60'000;  // milliseconds
constexpr std::int64_t kYear = 365 * 24 * 60 * kMinute;

class FileLoggerWindowsTest : public ::testing::Test {
 protected:
  std::unique_ptr<FileLoggerWindows> makeLogger(std::int64_t period = 0,
                                                std::uint32_t threshold = 2) {
    return std::make_unique<FileLoggerWindows>(5, threshold, kSession, base_, period);
  }
  void setTime(const std::u16string& text) {
    ports_.registry.setText(kAgentKey, kRotationTime, text);
  }
  void changeTime(const std::u16string& text) { ports_.change(kAgentKey, kRotationTime, text); }
  // Blocks until the logger waits for that time, in milliseconds after its first file.
  void awaitDeadline(std::int64_t milliseconds) {
    // Files remember their time to the millisecond, which kMarchTime is.
    ports_.clock.awaitDeadline(kMarchTime + milliseconds * platform::kClockUnitsPerMillisecond);
  }
  std::vector<fs::path> files() const { return test::filesIn(folder_.path()); }
  Texts lines() const { return summaries(recordsIn(folder_.path())); }

  test::TempFolder folder_;
  const std::string base_ = folder_.file("zelta_vsc");
  test::LoggingPorts ports_;
};

TEST_F(FileLoggerWindowsTest, PeriodOfZeroOrLess_NeverRotates) {
  for (const std::int64_t period : {0, -1}) {
    auto logger = makeLogger(period);
    ports_.clock.advance(kYear);
    logger.reset();
  }
  EXPECT_EQ(files().size(), 2u);
  EXPECT_EQ(ports_.clock.waits(), 0u);
}

// The clock counts in smaller units than the period.
TEST_F(FileLoggerWindowsTest, PeriodThatEndsAfterTheClocksEnd_NeverRotates) {
  constexpr std::int64_t kUnits = platform::kClockUnitsPerMillisecond;
  constexpr std::int64_t kLastTime = std::numeric_limits<std::int64_t>::max() / kUnits;
  for (const std::int64_t period :
       {kLastTime - kMarchTime / kUnits + 1, std::numeric_limits<std::int64_t>::max()}) {
    setTime(u"");  // leaves the period as it is
    auto logger = makeLogger(period);
    changeTime(u"0");
    logger.reset();
  }
  EXPECT_EQ(files().size(), 2u);
  EXPECT_EQ(ports_.clock.waits(), 0u);
  setTime(u"");
  auto logger = makeLogger(kLastTime - kMarchTime / kUnits);
  ports_.clock.awaitDeadline(kLastTime * kUnits);
}

TEST_F(FileLoggerWindowsTest, FileOpenForOnePeriod_IsReplaced) {
  auto logger = makeLogger(10 * kMinute);
  const auto child = logger->createChildForCategory(9);
  awaitDeadline(10 * kMinute);
  ports_.clock.advance(10 * kMinute - 1);
  logger->log("still the old file", 2, 0);
  ports_.clock.advance(1);
  awaitDeadline(20 * kMinute);
  logger->log("new file", 2, 0);
  child->log("child", 2, 0);
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(files()[1].filename(), "zelta_vsc_2024_03_05T14_17_09_042Z.txt");
  EXPECT_EQ(recordsOf(files()[0]).back().message, "still the old file");
  const auto records = recordsOf(files()[1]);
  EXPECT_EQ(summaries(records), (Texts{"<INFO> 0 new file", "<INFO> 0 child"}));
  EXPECT_EQ(records[0].elapsed, 0);
  EXPECT_EQ(records[1].category, 9u);
}

struct TimeCase {
  const char* name;
  std::u16string text;
  std::int64_t minutes;
};

class TimeAtConstruction : public FileLoggerWindowsTest,
                           public testing::WithParamInterface<TimeCase> {};

TEST_P(TimeAtConstruction, IsInForceAtOnceAndLogged) {
  setTime(GetParam().text);
  auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), GetParam().minutes * kMinute);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 Setting log rotation time to: " +
                           std::to_string(GetParam().minutes) + " mins"});
  EXPECT_EQ(recordsIn(folder_.path())[0].category, 5u);
  EXPECT_EQ(recordsIn(folder_.path())[0].sessionLogId, kSession);
  awaitDeadline(GetParam().minutes * kMinute);
}

INSTANTIATE_TEST_SUITE_P(FileLoggerWindows, TimeAtConstruction,
                         testing::Values(TimeCase{"WholeNumber", u"60", 60},
                                         TimeCase{"Fraction", u"1.9", 1},
                                         TimeCase{"BlankBeforeAndWordAfter", u" 30 minutes", 30},
                                         TimeCase{"HighestNumber", u"2147483647", 2147483647}),
                         [](const auto& each) { return each.param.name; });

TEST_F(FileLoggerWindowsTest, LaterPositivePeriod_RotatesWhenTheFileHasBeenOpenThatLong) {
  setTime(u"0");
  auto logger = makeLogger();
  ports_.clock.advance(5 * kMinute);
  changeTime(u"10");
  awaitDeadline(10 * kMinute);
  changeTime(u"30");
  awaitDeadline(30 * kMinute);
  ports_.clock.advance(25 * kMinute - 1);
  EXPECT_EQ(files().size(), 1u);
  ports_.clock.advance(1);
  awaitDeadline(60 * kMinute);
  EXPECT_EQ(files().size(), 2u);
}

TEST_F(FileLoggerWindowsTest, PeriodShortenedBelowTheFilesAge_RotatesAtOnce) {
  setTime(u"60");
  auto logger = makeLogger();
  awaitDeadline(60 * kMinute);
  ports_.clock.advance(5 * kMinute);
  setTime(u"1");
  awaitDeadline(6 * kMinute);
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(files()[1].filename(), "zelta_vsc_2024_03_05T14_12_09_042Z.txt");
  EXPECT_EQ(summaries(recordsOf(files()[0])),
            (Texts{"<INFO> 0 Setting log rotation time to: 60 mins",
                   "<INFO> 0 Setting log rotation time to: 1 mins"}));
}

TEST_F(FileLoggerWindowsTest, ZeroAfterSixty_StopsRotation) {
  setTime(u"60");
  auto logger = makeLogger();
  awaitDeadline(60 * kMinute);
  changeTime(u"0");
  EXPECT_EQ(logger->rotationPeriod(), 0);
  EXPECT_EQ(lines().back(), "<INFO> 0 Setting log rotation time to: 0 mins");
  ports_.clock.advance(kYear);
  // If the file had been replaced, the new time would count from the new file's beginning.
  changeTime(u"1000000");
  awaitDeadline(1'000'000 * kMinute);
  EXPECT_EQ(files().size(), 1u);
}

struct ChangeCase {
  const char* name;
  std::u16string text;
  std::string record;
};

class TimeThatChangesNothing : public FileLoggerWindowsTest,
                               public testing::WithParamInterface<ChangeCase> {};

TEST_P(TimeThatChangesNothing, KeepsThePeriodAndIsLogged) {
  setTime(u"60");
  auto logger = makeLogger(0, 3);
  changeTime(GetParam().text);
  EXPECT_EQ(logger->rotationPeriod(), 60 * kMinute);
  EXPECT_EQ(lines(), (Texts{"<INFO> 0 Setting log rotation time to: 60 mins", GetParam().record}));
}

std::string conversionFailed(const std::string& text) {
  return "<ERROR> -500 Invalid log rotation time obtained (\"" + text +
         "\"). Conversion failed. Continue to use existing rotation time.";
}
std::string invalidMinutes(const std::string& minutes) {
  return "<ERROR> -500 Invalid log rotation time obtained (\"" + minutes +
         "\") mins. Continue to use existing rotation time.";
}
std::string sameTime(const std::string& text) {
  return "<DEBUG> 0 New rotation time is (\"" + text +
         "\") mins which is the same as the last rotation time";
}

INSTANTIATE_TEST_SUITE_P(
    FileLoggerWindows, TimeThatChangesNothing,
    testing::Values(ChangeCase{"Word", u"abc", conversionFailed("abc")},
                    ChangeCase{"Nothing", u"", conversionFailed("")},
                    ChangeCase{"OutOfRange", u"1e999", conversionFailed("1e999")},
                    ChangeCase{"Negative", u"-5", invalidMinutes("-5")},
                    ChangeCase{"Wrapped", u"2147483648", invalidMinutes("-2147483648")},
                    ChangeCase{"SameNumber", u"60 ", sameTime("60 ")},
                    ChangeCase{"SameWholeNumber", u"60.5", sameTime("60.5")}),
    [](const auto& each) { return each.param.name; });

TEST_F(FileLoggerWindowsTest, SameTime_IsNotWrittenAtTheDefaultThreshold) {
  setTime(u"0");
  auto logger = makeLogger();
  changeTime(u"0 ");
  EXPECT_EQ(lines(), Texts());
}

TEST_F(FileLoggerWindowsTest, NotifierThatCannotBeMade_IsAnErrorRecordAndNoMore) {
  const auto expectError = [this](const std::string& text) {
    auto logger = makeLogger(10 * kMinute);
    EXPECT_EQ(lines().back(), "<ERROR> -500 " + text);
    EXPECT_EQ(logger->rotationPeriod(), 10 * kMinute);
    EXPECT_TRUE(ports_.allClosed());
  };
  expectError("Failed to open registry key: SOFTWARE\\Vornhalt\\ZeltaAgent");
  ports_.registry.createKey(kAgentKey);
  expectError("Failed to query (2) registry value: ZeltaLogRotationTime");
  ports_.registry.setDword(kAgentKey, kRotationTime, 60);
  expectError("Unexpected value type \"4\" from registry value: ZeltaLogRotationTime");
  EXPECT_EQ(lines().size(), 3u);
}

TEST_F(FileLoggerWindowsTest, NotifiersOwnRecords_CarryTheLoggersCategoryAndSession) {
  setTime(u"60");
  ports_.registry.fail(Notify::kNotifyChange, 1018, 1);
  auto logger = makeLogger();
  ports_.registry.waitForCalls(Notify::kNotifyChange, 2);
  const auto records = recordsIn(folder_.path());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(summaries(records)[1],
            "<ERROR> 1018 Failed to subscribe to change notification on registry key: "
            "SOFTWARE\\Vornhalt\\ZeltaAgent");
  EXPECT_EQ(records[1].category, 5u);
  EXPECT_EQ(records[1].sessionLogId, kSession);
}

TEST_F(FileLoggerWindowsTest, NotifiersOwnRecords_KeepTheThresholdOfItsBeginning) {
  setTime(u"60");
  auto logger = makeLogger(0, 0);
  ports_.registry.waitForCalls(Notify::kNotifyChange, 1);
  logger->setThreshold(3);
  // The notifier's own record goes through a child made at threshold 0; the handler's does not.
  ports_.registry.fail(Notify::kNotifyChange, 1018, 1);
  changeTime(u"abc");
  ports_.registry.waitForCalls(Notify::kNotifyChange, 3);
  EXPECT_EQ(lines(), Texts{conversionFailed("abc")});
}

TEST_F(FileLoggerWindowsTest, FilesReplacedWhileThreadsLog_LoseAndTearNoLine) {
  constexpr int kThreads = 16;
  constexpr int kLines = 200;
  auto logger = makeLogger(1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int line = 0; line < kLines; ++line) {
        logger->log(std::to_string(i) + "/" + std::to_string(line), 2, 0);
        if (i != 0) continue;
        ports_.clock.advance(1);
        while (line == kLines / 2 && files().size() < 2) std::this_thread::yield();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  logger.reset();
  EXPECT_GT(files().size(), 1u);
  Texts messages = test::messagesOf(recordsIn(folder_.path()));
  EXPECT_EQ(messages[0], "Failed to open registry key: SOFTWARE\\Vornhalt\\ZeltaAgent");
  messages.erase(messages.begin());
  test::expectNumberedMessages(messages, kThreads, kLines);
}

TEST_F(FileLoggerWindowsTest, DestroyingIt_EndsBothThreadsWhateverTheyWaitFor) {
  for (const char16_t* text : {u"0", u"60"}) {
    setTime(text);
    auto logger = makeLogger();
    ports_.registry.waitForCalls(Notify::kNotifyChange, 1);
    logger.reset();
    EXPECT_TRUE(ports_.allClosed());
  }
}

// Destroys a logger from within the rotation thread that waits here.
class DestroyingClock final : public platform::WallClock {
 public:
  std::int64_t now() override { return kMarchTime; }
  bool waitUntil(platform::ConditionVariable&, platform::MutexLock& lock, std::int64_t,
                 const std::function<bool()>&) override ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    lock.unlock();
    platform::MutexLock own(mutex_);
    given_.wait(own, [this] { return logger_ != nullptr; });
    logger_.reset();
    return true;
  }
  // Does not return.
  void destroy(std::unique_ptr<FileLoggerWindows> logger) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    platform::MutexLock own(mutex_);
    logger_ = std::move(logger);
    given_.notifyAll();
    given_.wait(own, [] { return false; });
  }

 private:
  platform::Mutex mutex_;
  platform::ConditionVariable given_;
  std::unique_ptr<FileLoggerWindows> logger_;
};

// The log files of the process that dies: a death test may run in a separate process.
fs::path folderOfTheDying;

[[noreturn]] void showTheLastRecordAndDie() {
  (void)std::fprintf(stderr, "%s\n", summaries(recordsIn(folderOfTheDying)).back().c_str());
  std::abort();
}

TEST_F(FileLoggerWindowsTest, DestroyedByItsOwnThread_SaysSoBeforeTheProcessEnds) {
  setTime(u"60");
  DestroyingClock clock;
  test::ScopedClock scope(clock);
  folderOfTheDying = folder_.path();
  const auto destroy = [&] {
    std::set_terminate(showTheLastRecordAndDie);
    clock.destroy(makeLogger());
  };
  EXPECT_DEATH(destroy(),
               "<ERROR> -500 Unexpected error occurred during logger cleanup: Resource deadlock "
               "avoided");
}

}  // namespace
}  // namespace zelta::logging
