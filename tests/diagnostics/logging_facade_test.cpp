// The log calls with the process's own logger behind them.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "diagnostics/logging_facade.h"
#include "platform/files/utf.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using test::filesIn;
using test::kFilterMode;
using test::kPolicy;
using test::kPolicyDefaults;
using test::recordsIn;
using test::recordsOf;
using test::summaries;
using Registry = test::FakeRegistry;
using Texts = std::vector<std::string>;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
// What the fixture's rotation time, which changes nothing, gives at debug level.
constexpr char kSameTime[] =
    "<DEBUG> 0 New rotation time is (\"0\") mins which is the same as the last rotation time";

class LoggingFacadeTest : public ::testing::Test {
 protected:
  LoggingFacadeTest() : logs_(folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs") {
    fs::create_directories(logs_);
    ports_.folders.programDataPath = platform::utf16FromUtf8(folder_.path().string());
    // A text that changes nothing and is read without a record.
    ports_.registry.setText(test::kAgentKey, test::kRotationTime, u"0");
  }
  ~LoggingFacadeTest() override { shutDownLogging(); }

  std::vector<fs::path> files() const { return filesIn(logs_); }
  Texts lines() const { return summaries(recordsIn(logs_)); }
  // Waits until the policy has been looked at, and what was found is in force.
  void awaitPolicy() {
    // The rest of the look that is under way, the next look's first read, and the first read of
    // the one after that, before which what was found has come into force.
    const std::size_t calls = ports_.registry.calls(Registry::Call::kGetDword);
    ports_.registry.waitForCalls(Registry::Call::kGetDword, calls + 3);
  }

  test::TempFolder folder_;
  const fs::path logs_;
  test::LoggingPorts ports_;
};

TEST_F(LoggingFacadeTest, BannerIsWrittenAsGoldenLines) {
  const std::string dashes(74, '-');
  logMessage(0, 0, "%s", dashes.c_str());
  logMessage(0, 0, "Vornhalt Virtual Smartcard Reader driver build %s", "1.0.0");
  ports_.clock.advance(17);
  logError(0x80070057, "[IOCT] %s", "refused");
  std::ostringstream printed;
  printed << std::this_thread::get_id();
  std::string thread = printed.str();
  thread.resize(std::max<std::size_t>(thread.size(), 6), ' ');
  ASSERT_EQ(files().size(), 1u);
  EXPECT_EQ(files()[0].filename(), "zelta_vsc_2024_03_05T14_07_09_042Z.txt");
  const std::string id = " 00000000-0000-0000-0000-000000000000 ";
  EXPECT_EQ(test::fileLines(files()[0]),
            (Texts{test::kHeaderText,
                   "[" + thread + "] 2024-03-05T14:07:09.042Z 0       " + id +
                       "0     <CRITICAL> 0           " + dashes,
                   "[" + thread + "] 2024-03-05T14:07:09.042Z 0       " + id +
                       "0     <CRITICAL> 0           Vornhalt Virtual Smartcard Reader driver "
                       "build 1.0.0",
                   "[" + thread + "] 2024-03-05T14:07:09.059Z 17      " + id +
                       "0     <ERROR>    -2147024809 [IOCT] refused"}));
}

TEST_F(LoggingFacadeTest, WithoutAPolicyInfoIsWrittenAndDebugIsDropped) {
  logDebug("debug");
  logInfo("info %d", 1);
  logError(5, "error");
  logError(kNoError, "error without a code");
  EXPECT_EQ(lines(),
            (Texts{"<INFO> 0 info 1", "<ERROR> 5 error", "<ERROR> -500 error without a code"}));
}

TEST_F(LoggingFacadeTest, PolicyOfTheBeginningHolds) {
  for (std::uint32_t mode = 0; mode <= 3; ++mode) {
    ports_.registry.setDword(kPolicy, kFilterMode, mode);
    ports_.clock.advance(1);
    for (std::uint8_t level = 0; level <= 4; ++level) {
      writeFilteredRecord(static_cast<LogLevel>(level), 0, "text");
    }
    shutDownLogging();
    Texts expected;
    if (mode == 3) expected.push_back(kSameTime);
    for (const char* tag : {"<CRITICAL>", "<ERROR>", "<INFO>", "<DEBUG>"}) {
      expected.push_back(std::string(tag) + " 0 text");
    }
    expected.resize(expected.size() - (3 - mode));
    EXPECT_EQ(summaries(recordsOf(files().back())), expected);
  }
}

TEST_F(LoggingFacadeTest, LogMessageIsTestedByTheLineWriterOnly) {
  ports_.registry.setDword(kPolicy, kFilterMode, 0);
  logMessage(0, 7, "written");
  logMessage(1, 7, "above the threshold");
  logMessage(4, 7, "never written");
  logMessage(255, 7, "no level");
  EXPECT_EQ(lines(), Texts{"<CRITICAL> 7 written"});
}

TEST_F(LoggingFacadeTest, MessageOf300CharactersIsCutAfter255) {
  logInfo("%s", std::string(300, 'x').c_str());
  EXPECT_EQ(lines(), Texts{"<INFO> 0 " + std::string(255, 'x')});
}

TEST_F(LoggingFacadeTest, PercentSignsAndBracesInArgumentsAreText) {
  logInfo("%s", "100% {} {0} %s %n");
  EXPECT_EQ(lines(), Texts{"<INFO> 0 100% {} {0} %s %n"});
}

TEST_F(LoggingFacadeTest, ChangedPolicyIsInForceAfterTheNextLook) {
  logDebug("dropped");
  ports_.registry.setDword(kPolicy, kFilterMode, 3);
  awaitPolicy();
  logDebug("written");
  ports_.registry.setDword(kPolicy, kFilterMode, 7);
  ports_.registry.setDword(kPolicyDefaults, kFilterMode, 1);
  awaitPolicy();
  logInfo("dropped");
  logError(1, "written");
  setSessionLogId(kSession);
  logInfo("dropped in the new file as well");
  EXPECT_EQ(lines(), (Texts{"<DEBUG> 0 written", "<ERROR> 1 written"}));
}

TEST_F(LoggingFacadeTest, PolicyChangedBetweenTwoLoggersHoldsForTheSecond) {
  logDebug("dropped");
  shutDownLogging();
  ports_.registry.setDword(kPolicy, kFilterMode, 3);
  logDebug("written");
  EXPECT_EQ(lines(), (Texts{kSameTime, "<DEBUG> 0 written"}));
}

TEST_F(LoggingFacadeTest, DroppedIsWhatTheLoggerInForceWouldNotWrite) {
  EXPECT_FALSE(isDropped(LogLevel::kDebug)) << "nobody has made the logger";
  logDebug("dropped");
  EXPECT_TRUE(isDropped(LogLevel::kDebug));
  EXPECT_FALSE(isDropped(LogLevel::kInfo));
  ports_.registry.setDword(kPolicy, kFilterMode, 1);
  awaitPolicy();
  EXPECT_TRUE(isDropped(LogLevel::kInfo));
  setSessionLogId(kSession);
  EXPECT_TRUE(isDropped(LogLevel::kInfo));
  EXPECT_FALSE(isDropped(LogLevel::kError));
  shutDownLogging();
  EXPECT_FALSE(isDropped(LogLevel::kInfo));
}

TEST_F(LoggingFacadeTest, SessionStartsAFileWhoseLinesCarryItsId) {
  logInfo("before");
  ports_.clock.advance(1'000);
  setSessionLogId(kSession);
  logInfo("within");
  ports_.clock.advance(1'000);
  setSessionLogId(kNullSessionLogId);
  logInfo("after");
  ASSERT_EQ(files().size(), 3u);
  EXPECT_EQ(recordsOf(files()[0])[0].sessionLogId, kNullSessionLogId);
  EXPECT_EQ(recordsOf(files()[1])[0].sessionLogId, kSession);
  EXPECT_EQ(recordsOf(files()[1])[0].elapsed, 0);
  EXPECT_EQ(recordsOf(files()[2])[0].sessionLogId, kNullSessionLogId);
  EXPECT_EQ(lines(), (Texts{"<INFO> 0 before", "<INFO> 0 within", "<INFO> 0 after"}));
}

TEST_F(LoggingFacadeTest, SameSessionTwiceStartsAFileEachTimeAlsoWithinAMillisecond) {
  setSessionLogId(kSession);
  logInfo("one");
  setSessionLogId(kSession);
  logInfo("two");
  EXPECT_EQ(files().size(), 3u);  // the first is that of no session
  EXPECT_EQ(lines(), (Texts{"<INFO> 0 one", "<INFO> 0 two"}));
}

TEST_F(LoggingFacadeTest, SessionIdIsWrittenAsItCame) {
  setSessionLogId("short {} %s");
  logInfo("text");
  EXPECT_NE(test::fileLines(files().back())[1].find(" short {} %s "), std::string::npos);
}

TEST_F(LoggingFacadeTest, ByteDumpHasAFullPrefixOnEveryLine) {
  ports_.registry.setDword(kPolicy, kFilterMode, 3);
  const std::uint8_t bytes[17] = {0x00, 0xA4, 0x04, 0x0A, 0xFF};
  logByteDump(bytes, 17, 16);
  EXPECT_EQ(lines(),
            (Texts{kSameTime, "<DEBUG> 0 17 byte dump:",
                   "<DEBUG> 0 00 a4 04 0a ff 00 00 00 00 00 00 00 00 00 00 00 ", "<DEBUG> 0 00 "}));
}

TEST_F(LoggingFacadeTest, ByteDumpBelowTheThresholdDoesNothing) {
  logByteDump(nullptr, 1'000, 16);
  EXPECT_EQ(lines(), Texts());
}

TEST_F(LoggingFacadeTest, FirstCallsOfManyThreadsMakeOneLogger) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) threads.emplace_back([] { logInfo("text"); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(lines().size(), 16u);
}

TEST_F(LoggingFacadeTest, CallAfterTheEndMakesALoggerAnew) {
  logInfo("first");
  shutDownLogging();
  EXPECT_EQ(ports_.registry.openKeys(), 0u);
  EXPECT_EQ(ports_.events.open(), 0u);
  ports_.clock.advance(1);
  logInfo("second");
  EXPECT_EQ(files().size(), 2u);
  EXPECT_EQ(lines(), (Texts{"<INFO> 0 first", "<INFO> 0 second"}));
}

TEST_F(LoggingFacadeTest, EndWithoutALoggerIsNoMatter) {
  EXPECT_FALSE(hasLogger());
  shutDownLogging();
  shutDownLogging();
  EXPECT_FALSE(hasLogger());
  EXPECT_TRUE(files().empty());
}

TEST_F(LoggingFacadeTest, LoggerIsThereFromTheFirstCallToTheEnd) {
  logDebug("dropped");
  EXPECT_TRUE(hasLogger());
  EXPECT_EQ(files().size(), 1u);
  shutDownLogging();
  EXPECT_FALSE(hasLogger());
}

TEST_F(LoggingFacadeTest, CallsBesideTheEndKeepTheirLoggerUntilTheirLineIsWritten) {
  constexpr int kThreads = 4;
  constexpr int kLines = 100;
  std::atomic<int> logging{kThreads};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread, &logging] {
      for (int line = 0; line < kLines; ++line) {
        logInfo("t%d/%d", thread, line);
        setSessionLogId(kSession);
      }
      --logging;
    });
  }
  while (logging > 0) shutDownLogging();
  for (std::thread& thread : threads) thread.join();
  shutDownLogging();
  EXPECT_EQ(lines().size(), std::size_t{kThreads} * kLines);
}

TEST_F(LoggingFacadeTest, MissingLogDirectoryIsAwaitedAndNotMade) {
  fs::remove_all(folder_.path() / "Vornhalt");
  logInfo("lost");
  setSessionLogId(kSession);
  logError(5, "lost");
  EXPECT_FALSE(fs::exists(folder_.path() / "Vornhalt"));
  fs::create_directories(logs_);
  logInfo("kept");
  ASSERT_EQ(files().size(), 1u);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 kept"});
  EXPECT_EQ(recordsOf(files()[0])[0].sessionLogId, kSession);
}

TEST_F(LoggingFacadeTest, DirectoryOfAnotherAlphabetIsFound) {
  const fs::path other = folder_.path() / "\xD0\x96 \xC3\xA4";
  fs::create_directories(other / "Vornhalt" / "ZeltaAgent" / "logs");
  ports_.folders.programDataPath = platform::utf16FromUtf8(other.string());
  logInfo("text");
  EXPECT_EQ(filesIn(other / "Vornhalt" / "ZeltaAgent" / "logs").size(), 1u);
}

TEST_F(LoggingFacadeTest, WithoutProgramDataTheTemporaryPathIsUsed) {
  ports_.folders.programDataPath.reset();
  ports_.folders.temporaryPath = platform::utf16FromUtf8(folder_.path().string() + "/");
  logInfo("text");
  EXPECT_EQ(filesIn(folder_.path()).size(), 1u);
}

TEST_F(LoggingFacadeTest, WithoutAnyFolderTheCurrentOneIsUsed) {
  ports_.folders.programDataPath.reset();
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  logInfo("text");
  shutDownLogging();
  fs::current_path(before);
  ASSERT_EQ(filesIn(folder_.path()).size(), 1u);
  EXPECT_EQ(filesIn(folder_.path())[0].filename(), "zelta_vsc_2024_03_05T14_07_09_042Z.txt");
}

TEST_F(LoggingFacadeTest, MissingRotationTimeIsTheFirstRecordOfEveryFile) {
  ports_.registry.deleteValue(test::kAgentKey, test::kRotationTime);
  logInfo("text");
  setSessionLogId(kSession);
  const std::string record =
      "<ERROR> -500 Failed to query (2) registry value: ZeltaLogRotationTime";
  EXPECT_EQ(lines(), (Texts{record, "<INFO> 0 text", record}));
}

TEST_F(LoggingFacadeTest, RotationTimeOfTheRegistryStartsFiles) {
  ports_.registry.setText(test::kAgentKey, test::kRotationTime, u"1");
  logInfo("first");
  ports_.clock.awaitDeadline(test::kMarchTime + 60'000 * platform::kClockUnitsPerMillisecond);
  ports_.clock.advance(60'000);
  ports_.clock.awaitDeadline(test::kMarchTime + 120'000 * platform::kClockUnitsPerMillisecond);
  logInfo("second");
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(summaries(recordsOf(files()[1])), Texts{"<INFO> 0 second"});
}

TEST_F(LoggingFacadeTest, ProcessThatExitsWhileLoggingEndsAtOnce) {
  // The files are looked at from within: the test may run in a process of its own.
  const auto logAndExit = [this] {
    logInfo("last words");
    std::exit(lines() == Texts{"<INFO> 0 last words"} ? 0 : 1);
  };
  EXPECT_EXIT(logAndExit(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zelta
