// FileLoggerWindows on a simulated clock and a registry in memory.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <thread>

#include "logging/zelta_logging.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {
namespace {

namespace fs = std::filesystem;
using test::filesIn;
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

std::int64_t deadlineAfter(std::int64_t milliseconds) {
  // Files remember their time to the millisecond, which kMarchTime is.
  return kMarchTime + milliseconds * platform::kClockUnitsPerMillisecond;
}

class RotationTest : public ::testing::Test {
 protected:
  std::unique_ptr<FileLoggerWindows> makeLogger(std::int64_t period = 0,
                                                std::uint32_t threshold = 2) {
    return std::make_unique<FileLoggerWindows>(5, threshold, kSession, base_, period);
  }
  void setTime(const std::u16string& text) {
    ports_.registry.setText(kAgentKey, kRotationTime, text);
  }
  // Sets the time and waits until the logger has dealt with it: it subscribes anew then.
  void changeTime(const std::u16string& text) {
    ports_.registry.waitForCalls(Notify::kNotifyChange, 1);
    const std::size_t calls = ports_.registry.calls(Notify::kNotifyChange);
    setTime(text);
    ports_.registry.waitForCalls(Notify::kNotifyChange, calls + 1);
  }
  std::vector<fs::path> files() const { return filesIn(folder_.path()); }
  Texts lines() const { return summaries(recordsIn(folder_.path())); }

  test::TempFolder folder_;
  const std::string base_ = folder_.file("zelta_vsc");
  test::LoggingPorts ports_;
};

TEST_F(RotationTest, PeriodOfZeroNeverRotates) {
  auto logger = makeLogger();
  ports_.clock.advance(365 * 24 * 60 * kMinute);
  logger->log("text", 2, 0);
  logger.reset();
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(ports_.clock.waits(), 0u);
}

TEST_F(RotationTest, NegativePeriodNeverRotates) {
  auto logger = makeLogger(-1);
  ports_.clock.advance(365 * 24 * 60 * kMinute);
  logger.reset();
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(ports_.clock.waits(), 0u);
}

TEST_F(RotationTest, FileIsReplacedWhenItHasBeenOpenForOnePeriod) {
  auto logger = makeLogger(10 * kMinute);
  ports_.clock.awaitDeadline(deadlineAfter(10 * kMinute));
  logger->log("old file", 2, 0);
  ports_.clock.advance(10 * kMinute - 1);
  logger->log("still the old file", 2, 0);
  ports_.clock.advance(1);
  ports_.clock.awaitDeadline(deadlineAfter(20 * kMinute));
  logger->log("new file", 2, 0);
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(files()[1].filename(), "zelta_vsc_2024_03_05T14_17_09_042Z.txt");
  EXPECT_EQ(recordsOf(files()[0]).back().message, "still the old file");
  ASSERT_EQ(recordsOf(files()[1]).size(), 1u);
  EXPECT_EQ(recordsOf(files()[1])[0].message, "new file");
  EXPECT_EQ(recordsOf(files()[1])[0].elapsed, 0);
}

TEST_F(RotationTest, EveryPeriodStartsAFileAndOldOnesAreKept) {
  auto logger = makeLogger(kMinute);
  for (int i = 1; i <= 20; ++i) {
    ports_.clock.awaitDeadline(deadlineAfter(i * kMinute));
    ports_.clock.advance(kMinute);
  }
  ports_.clock.awaitDeadline(deadlineAfter(21 * kMinute));
  EXPECT_EQ(files().size(), 21u);
}

TEST_F(RotationTest, RegistryTimeHoldsFromConstructionOn) {
  setTime(u"60");
  auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), 3'600'000);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 Setting log rotation time to: 60 mins"});
  ports_.clock.awaitDeadline(deadlineAfter(60 * kMinute));
  EXPECT_EQ(recordsIn(folder_.path())[0].category, 5u);
  EXPECT_EQ(recordsIn(folder_.path())[0].sessionLogId, kSession);
}

TEST_F(RotationTest, LaterPositivePeriodRotatesWhenTheFileHasBeenOpenThatLong) {
  setTime(u"0");
  auto logger = makeLogger();
  ports_.clock.advance(5 * kMinute);
  changeTime(u"10");
  ports_.clock.awaitDeadline(deadlineAfter(10 * kMinute));
  EXPECT_EQ(files().size(), 1u);
  ports_.clock.advance(5 * kMinute);
  ports_.clock.awaitDeadline(deadlineAfter(20 * kMinute));
  EXPECT_EQ(files().size(), 2u);
}

TEST_F(RotationTest, PeriodShortenedBelowTheFilesAgeRotatesAtOnce) {
  setTime(u"60");
  auto logger = makeLogger();
  ports_.clock.awaitDeadline(deadlineAfter(60 * kMinute));
  ports_.clock.advance(5 * kMinute);
  setTime(u"1");
  ports_.clock.awaitDeadline(deadlineAfter(6 * kMinute));
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(files()[1].filename(), "zelta_vsc_2024_03_05T14_12_09_042Z.txt");
  EXPECT_EQ(summaries(recordsOf(files()[0])),
            (Texts{"<INFO> 0 Setting log rotation time to: 60 mins",
                   "<INFO> 0 Setting log rotation time to: 1 mins"}));
}

TEST_F(RotationTest, LengthenedPeriodMovesTheDeadline) {
  setTime(u"10");
  auto logger = makeLogger();
  ports_.clock.awaitDeadline(deadlineAfter(10 * kMinute));
  setTime(u"30");
  ports_.clock.awaitDeadline(deadlineAfter(30 * kMinute));
  ports_.clock.advance(29 * kMinute);
  logger.reset();
  EXPECT_EQ(files().size(), 1u);
}

TEST_F(RotationTest, ZeroStopsRotation) {
  setTime(u"60");
  auto logger = makeLogger();
  ports_.clock.awaitDeadline(deadlineAfter(60 * kMinute));
  changeTime(u"0");
  EXPECT_EQ(logger->rotationPeriod(), 0);
  EXPECT_EQ(lines().back(), "<INFO> 0 Setting log rotation time to: 0 mins");
  ports_.clock.advance(365 * 24 * 60 * kMinute);
  // Had the file been replaced, the new time would count from its own beginning.
  changeTime(u"1000000");
  ports_.clock.awaitDeadline(deadlineAfter(1'000'000 * kMinute));
  EXPECT_EQ(files().size(), 1u);
}

TEST_F(RotationTest, FractionIsCutOff) {
  setTime(u"1.9");
  auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), kMinute);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 Setting log rotation time to: 1 mins"});
}

TEST_F(RotationTest, LeadingBlankAndTrailingWordAreNoMatter) {
  setTime(u" 30 minutes");
  auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), 30 * kMinute);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 Setting log rotation time to: 30 mins"});
}

TEST_F(RotationTest, HighestPeriodIsWaitedFor) {
  setTime(u"2147483647");
  auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), 2'147'483'647 * kMinute);
  ports_.clock.awaitDeadline(deadlineAfter(2'147'483'647 * kMinute));
}

TEST_F(RotationTest, TextThatIsNoNumberKeepsThePeriod) {
  setTime(u"60");
  auto logger = makeLogger();
  changeTime(u"abc");
  changeTime(u"");
  changeTime(u"1e999");
  EXPECT_EQ(logger->rotationPeriod(), 60 * kMinute);
  EXPECT_EQ(lines(), (Texts{"<INFO> 0 Setting log rotation time to: 60 mins",
                            "<ERROR> -500 Invalid log rotation time obtained (\"abc\"). Conversion "
                            "failed. Continue to use existing rotation time.",
                            "<ERROR> -500 Invalid log rotation time obtained (\"\"). Conversion "
                            "failed. Continue to use existing rotation time.",
                            "<ERROR> -500 Invalid log rotation time obtained (\"1e999\"). "
                            "Conversion failed. Continue to use existing rotation time."}));
}

TEST_F(RotationTest, NegativeTimeKeepsThePeriod) {
  setTime(u"60");
  auto logger = makeLogger();
  changeTime(u"-5");
  changeTime(u"2147483648");
  EXPECT_EQ(logger->rotationPeriod(), 60 * kMinute);
  EXPECT_EQ(lines()[1],
            "<ERROR> -500 Invalid log rotation time obtained (\"-5\") mins. Continue to use "
            "existing rotation time.");
  EXPECT_EQ(lines()[2],
            "<ERROR> -500 Invalid log rotation time obtained (\"-2147483648\") mins. Continue to "
            "use existing rotation time.");
}

TEST_F(RotationTest, SameTimeIsADebugRecordWithTheTextAsGiven) {
  setTime(u"60");
  auto logger = makeLogger(0, 3);
  changeTime(u"60 ");
  changeTime(u"60.5");
  EXPECT_EQ(lines(), (Texts{"<INFO> 0 Setting log rotation time to: 60 mins",
                            "<DEBUG> 0 New rotation time is (\"60 \") mins which is the same as "
                            "the last rotation time",
                            "<DEBUG> 0 New rotation time is (\"60.5\") mins which is the same as "
                            "the last rotation time"}));
}

TEST_F(RotationTest, SameTimeIsNotWrittenAtTheDefaultThreshold) {
  setTime(u"0");
  auto logger = makeLogger();
  changeTime(u"0 ");
  EXPECT_EQ(lines(), Texts());
}

TEST_F(RotationTest, MissingKeyIsAnErrorRecordAndNoMore) {
  auto logger = makeLogger(10 * kMinute);
  EXPECT_EQ(lines(),
            Texts{"<ERROR> -500 Failed to open registry key: SOFTWARE\\Vornhalt\\ZeltaAgent"});
  EXPECT_EQ(logger->rotationPeriod(), 10 * kMinute);
  EXPECT_EQ(ports_.registry.openKeys(), 0u);
}

TEST_F(RotationTest, MissingValueIsAnErrorRecordAndNoMore) {
  ports_.registry.createKey(kAgentKey);
  auto logger = makeLogger();
  EXPECT_EQ(lines(),
            Texts{"<ERROR> -500 Failed to query (2) registry value: ZeltaLogRotationTime"});
  EXPECT_EQ(ports_.registry.openKeys(), 0u);
  EXPECT_EQ(ports_.events.open(), 0u);
}

TEST_F(RotationTest, ValueOfAnotherTypeIsAnErrorRecordAndNoMore) {
  ports_.registry.setDword(kAgentKey, kRotationTime, 60);
  auto logger = makeLogger();
  EXPECT_EQ(lines(), Texts{"<ERROR> -500 Unexpected value type \"4\" from registry value: "
                           "ZeltaLogRotationTime"});
  EXPECT_EQ(logger->rotationPeriod(), 0);
}

TEST_F(RotationTest, NotifiersOwnRecordsKeepTheThresholdOfItsBeginning) {
  setTime(u"60");
  auto logger = makeLogger(0, 0);
  ports_.registry.waitForCalls(Notify::kNotifyChange, 1);
  logger->setThreshold(3);
  // The notifier's own record goes through a child made at threshold 0; the handler's does not.
  ports_.registry.fail(Notify::kNotifyChange, 1018, 1);
  changeTime(u"abc");
  ports_.registry.waitForCalls(Notify::kNotifyChange, 3);
  EXPECT_EQ(lines(), Texts{"<ERROR> -500 Invalid log rotation time obtained (\"abc\"). Conversion "
                           "failed. Continue to use existing rotation time."});
}

TEST_F(RotationTest, NotifiersOwnRecordsCarryTheLoggersCategoryAndSession) {
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

TEST_F(RotationTest, ChildWritesToTheFileAfterRotationToo) {
  auto logger = makeLogger(kMinute);
  const auto child = logger->createChildForCategory(9);
  ports_.clock.awaitDeadline(deadlineAfter(kMinute));
  ports_.clock.advance(kMinute);
  ports_.clock.awaitDeadline(deadlineAfter(2 * kMinute));
  child->log("child", 2, 0);
  EXPECT_EQ(recordsOf(files().back())[0].category, 9u);
}

TEST_F(RotationTest, NoLineIsLostOrTornWhileFilesAreReplaced) {
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
  std::vector<int> next(kThreads);
  for (const std::string& message : messages) {
    const int thread = std::stoi(message);
    EXPECT_EQ(message, std::to_string(thread) + "/" +
                           std::to_string(next[static_cast<std::size_t>(thread)]++));
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
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

// Where the process that dies has its log files: a death test may run in a process of its own.
fs::path folderOfTheDying;

[[noreturn]] void showTheLastRecordAndDie() {
  std::fprintf(stderr, "%s\n", summaries(recordsIn(folderOfTheDying)).back().c_str());
  std::abort();
}

TEST_F(RotationTest, ThreadThatCannotBeJoinedIsAnErrorRecord) {
  // No thread of a logger's own may destroy it. It says so before the process ends.
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

TEST_F(RotationTest, DestroyingEndsBothThreadsWhateverTheyWaitFor) {
  for (const char16_t* text : {u"0", u"60"}) {
    setTime(text);
    auto logger = makeLogger();
    ports_.registry.waitForCalls(Notify::kNotifyChange, 1);
    logger.reset();
    EXPECT_EQ(ports_.registry.openKeys(), 0u);
    EXPECT_EQ(ports_.events.open(), 0u);
  }
}

}  // namespace
}  // namespace zelta::logging
