// The log calls, with the process's own logger.
#include "diagnostics/logging_facade.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <thread>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "platform/process/thread_id.h"
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
using Path = std::optional<std::u16string>;
using Registry = test::FakeRegistry;
using Texts = std::vector<std::string>;

struct DirectoryCase {
  const char* name;
  Path programData;
  Path temporary;
  Path current;
  std::u16string directory;
};

class LogDirectory : public testing::TestWithParam<DirectoryCase> {};

TEST_P(LogDirectory, FirstFolderThatTheSystemGives_IsTaken) {
  test::FakeFolders folders;
  folders.programDataPath = GetParam().programData;
  folders.temporaryPath = GetParam().temporary;
  folders.currentPath = GetParam().current;
  EXPECT_EQ(resolveLogDirectory(folders), GetParam().directory);
  EXPECT_EQ(folders.unfreed(), 0u);
  // A folder is asked for only if there is none before it, and with room for 261 characters.
  const bool asksTemporary = !GetParam().programData.has_value();
  const bool asksCurrent = asksTemporary && !GetParam().temporary.has_value();
  EXPECT_EQ(folders.tempPathCalls(), asksTemporary ? 1u : 0u);
  EXPECT_EQ(folders.currentDirectoryCalls(), asksCurrent ? 1u : 0u);
  EXPECT_EQ(folders.lastCapacity(), asksTemporary ? 261u : 0u);
}

const std::u16string k259(259, u'x');
const std::u16string k260(260, u'x');
const std::u16string k400(400, u'x');  // beyond the buffer
const std::u16string kOtherAlphabets = u"C:\\\u00C4\U0001F0CF" + k400;

const DirectoryCase kDirectories[] = {
    {"ProgramData", u"C:\\ProgramData", u"X:\\T\\", u"X:\\C",
     u"C:\\ProgramData\\Vornhalt\\ZeltaAgent\\logs\\"},
    {"LongProgramDataInOtherAlphabets",
     kOtherAlphabets,
     {},
     {},
     kOtherAlphabets + u"\\Vornhalt\\ZeltaAgent\\logs\\"},
    {"EmptyProgramData_Root", u"", {}, {}, u"\\Vornhalt\\ZeltaAgent\\logs\\"},
    {"TemporaryPath_SecondBackslash", {}, u"X:\\T\\", u"X:\\C", u"X:\\T\\\\"},
    {"TemporaryPathOf1Character", {}, u"x", {}, u"x\\"},
    {"TemporaryPathOf259Characters", {}, k259, {}, k259 + u'\\'},
    {"TemporaryPathOf260Characters_None", {}, k260, {}, u""},
    {"TemporaryPathOf400Characters_None", {}, k400, {}, u""},
    {"CurrentDirectory", {}, {}, u"X:\\C", u"X:\\C\\"},
    {"CurrentDirectoryOf259Characters", {}, {}, k259, k259 + u'\\'},
    {"CurrentDirectoryOf260Characters_None", {}, {}, k260, u""},
    {"NoFolder_None", {}, {}, {}, u""},
};

INSTANTIATE_TEST_SUITE_P(Diagnostics, LogDirectory, testing::ValuesIn(kDirectories),
                         [](const auto& each) { return each.param.name; });

TEST(EventFilterMode, PolicyAndDefaults_GiveTheMode) {
  using Mode = std::optional<std::uint32_t>;
  struct Case {
    Mode policy;
    Mode defaults;
    std::uint32_t mode;
  };
  const Case cases[] = {
      {{}, {}, 2},                                                       // nothing: information
      {0, {}, 0},  {1, {}, 1},          {2, {}, 2},         {3, {}, 3},  // the policy
      {{}, 0, 0},  {{}, 1, 1},          {{}, 2, 2},         {{}, 3, 3},  // the defaults
      {1, 3, 1},   {0, 3, 0},           {3, 0, 3},                       // the policy first
      {7, 3, 3},   {4, 0, 0},           {0xFFFFFFFF, 1, 1}, {7, {}, 2},  // a policy out of range
      {{}, 4, 2},  {{}, 0xFFFFFFFF, 2}, {7, 9, 2},                       // defaults out of range
  };
  for (const Case& each : cases) {
    Registry registry;
    if (each.policy) registry.setDword(kPolicy, kFilterMode, *each.policy);
    if (each.defaults) registry.setDword(kPolicyDefaults, kFilterMode, *each.defaults);
    EXPECT_EQ(readEventFilterMode(registry), each.mode)
        << each.policy.value_or(99) << " " << each.defaults.value_or(99);
  }
}

TEST(EventFilterMode, ValueThatCannotBeRead_CountsAsNone) {
  Registry registry;
  registry.setText(kPolicy, kFilterMode, u"1");
  registry.setDword(kPolicyDefaults, kFilterMode, 3);
  EXPECT_EQ(readEventFilterMode(registry), 3u);
  registry.fail(Registry::Call::kGetDword, 5);
  EXPECT_EQ(readEventFilterMode(registry), 2u);
}

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
// The debug line for the fixture's rotation time, which changes nothing.
constexpr char kSameTime[] =
    "<DEBUG> 0 New rotation time is (\"0\") mins which is the same as the last rotation time";

class LoggingFacadeTest : public ::testing::Test {
 protected:
  LoggingFacadeTest() {
    fs::create_directories(logs_);
    ports_.folders.programDataPath = data_.u16string();
    // A text that changes nothing and is read without a record.
    ports_.registry.setText(test::kAgentKey, test::kRotationTime, u"0");
  }
  ~LoggingFacadeTest() override { shutDownLogging(); }

  std::vector<fs::path> files() const { return filesIn(logs_); }
  Texts lines() const { return summaries(recordsIn(logs_)); }
  void setPolicy(std::uint32_t mode) { ports_.registry.setDword(kPolicy, kFilterMode, mode); }
  // Waits until the policy has been read and is in force.
  void awaitPolicy() {
    // The rest of the look that is under way, the next look's first read, and the first read of
    // the one after that, before which what was found has come into force.
    const std::size_t calls = ports_.registry.calls(Registry::Call::kGetDword);
    ports_.registry.waitForCalls(Registry::Call::kGetDword, calls + 3);
  }

  test::TempFolder folder_;
  const fs::path data_ = folder_.path() / fs::u8path("\xD0\x96 \xC3\xA4");
  const fs::path logs_ = data_ / "Vornhalt" / "ZeltaAgent" / "logs";
  test::LoggingPorts ports_;
};

TEST_F(LoggingFacadeTest, Records_AreGoldenLinesOfTheFirstFile) {
  const std::string dashes(74, '-');
  logMessage(0, 0, "%s", dashes.c_str());
  ports_.clock.advance(17);
  logError(0x80070057, "[IOCT] %s", "100% {} {0} %s %n");
  std::string thread = std::to_string(platform::currentThreadId());
  thread.resize(std::max<std::size_t>(thread.size(), 6), ' ');
  ASSERT_EQ(files().size(), 1u);
  EXPECT_EQ(files()[0].filename(), "zelta_vsc_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(test::fileLines(files()[0]),
            (Texts{test::kHeaderText,
                   "[" + thread +
                       "] 2024-03-05T14:07:09.042Z 0        "
                       "00000000-0000-0000-0000-000000000000 0     <CRITICAL> 0           " +
                       dashes,
                   "[" + thread +
                       "] 2024-03-05T14:07:09.059Z 17       "
                       "00000000-0000-0000-0000-000000000000 0     <ERROR>    -2147024809 "
                       "[IOCT] 100% {} {0} %s %n"}));
}

TEST_F(LoggingFacadeTest, WithoutAPolicy_InfoIsWrittenAndDebugIsDropped) {
  logDebug("debug");
  logByteDump(nullptr, 1'000, 16);
  logInfo("info %d", 1);
  logError(5, "error");
  logError(kNoError, "error without a code");
  EXPECT_EQ(lines(),
            (Texts{"<INFO> 0 info 1", "<ERROR> 5 error", "<ERROR> -500 error without a code"}));
}

TEST_F(LoggingFacadeTest, PolicyOfTheBeginning_Holds) {
  for (std::uint32_t mode = 0; mode <= 3; ++mode) {
    setPolicy(mode);
    ports_.clock.advance(1);
    for (std::int32_t level = 0; level <= 4; ++level) {
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

TEST_F(LoggingFacadeTest, LogMessage_IsTestedByTheLineWriterOnly) {
  setPolicy(0);
  logMessage(0, 7, "written");
  logMessage(1, 7, "above the threshold");
  logMessage(4, 7, "never written");
  logMessage(255, 7, "no level");
  EXPECT_EQ(lines(), Texts{"<CRITICAL> 7 written"});
}

TEST_F(LoggingFacadeTest, ChangedPolicy_IsInForceAfterTheNextLook) {
  logDebug("dropped");
  setPolicy(3);
  awaitPolicy();
  logDebug("written");
  setPolicy(7);
  ports_.registry.setDword(kPolicyDefaults, kFilterMode, 1);
  awaitPolicy();
  logInfo("dropped");
  logError(1, "written");
  setSessionLogId(kSession);
  logInfo("dropped in the new file as well");
  shutDownLogging();
  setPolicy(3);
  logDebug("written by the next logger");
  EXPECT_EQ(lines(), (Texts{"<DEBUG> 0 written", "<ERROR> 1 written", kSameTime,
                            "<DEBUG> 0 written by the next logger"}));
}

TEST_F(LoggingFacadeTest, IsDropped_SaysWhatTheLoggerInForceWouldNotWrite) {
  EXPECT_FALSE(isDropped(LogLevel::kDebug)) << "nobody has made the logger";
  logDebug("dropped");
  EXPECT_TRUE(isDropped(LogLevel::kDebug));
  EXPECT_FALSE(isDropped(LogLevel::kInfo));
  setPolicy(1);
  awaitPolicy();
  EXPECT_TRUE(isDropped(LogLevel::kInfo));
  setSessionLogId(kSession);
  EXPECT_TRUE(isDropped(LogLevel::kInfo));
  EXPECT_FALSE(isDropped(LogLevel::kError));
  shutDownLogging();
  EXPECT_FALSE(isDropped(LogLevel::kInfo));
}

TEST_F(LoggingFacadeTest, EachSession_StartsAFileWhoseLinesCarryItsId) {
  logInfo("before");
  setSessionLogId(kSession);
  logInfo("within");
  setSessionLogId(kSession);  // the same id, in the same millisecond
  logInfo("again");
  ports_.clock.advance(1'000);
  setSessionLogId(kNullSessionLogId);
  logInfo("after");
  const std::string ids[] = {kNullSessionLogId, kSession, kSession, kNullSessionLogId};
  ASSERT_EQ(files().size(), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto records = recordsOf(files()[i]);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].sessionLogId, ids[i]);
  }
  EXPECT_EQ(recordsOf(files()[3])[0].elapsed, 0);
  EXPECT_EQ(lines(),
            (Texts{"<INFO> 0 before", "<INFO> 0 within", "<INFO> 0 again", "<INFO> 0 after"}));
}

TEST_F(LoggingFacadeTest, ByteDump_HasAFullPrefixOnEveryLine) {
  setPolicy(3);
  const std::uint8_t bytes[17] = {0x00, 0xA4, 0x04, 0x0A, 0xFF};
  logByteDump(bytes, 17, 16);
  EXPECT_EQ(lines(),
            (Texts{kSameTime, "<DEBUG> 0 17 byte dump:",
                   "<DEBUG> 0 00 a4 04 0a ff 00 00 00 00 00 00 00 00 00 00 00 ", "<DEBUG> 0 00 "}));
}

TEST_F(LoggingFacadeTest, FirstCallsOfManyThreads_MakeOneLogger) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) threads.emplace_back([] { logInfo("text"); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(lines().size(), 16u);
}

TEST_F(LoggingFacadeTest, Logger_IsThereFromACallToTheEndAndAgainFromTheNext) {
  shutDownLogging();
  EXPECT_FALSE(hasLogger());
  EXPECT_TRUE(files().empty());
  logDebug("dropped");
  EXPECT_TRUE(hasLogger());
  EXPECT_EQ(files().size(), 1u);
  for (int i = 0; i < 2; ++i) shutDownLogging();
  EXPECT_FALSE(hasLogger());
  EXPECT_TRUE(ports_.allClosed());
  logInfo("second");
  EXPECT_EQ(files().size(), 2u);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 second"});
}

TEST_F(LoggingFacadeTest, CallsBesideTheEnd_KeepTheirLoggerUntilTheirLineIsWritten) {
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

TEST_F(LoggingFacadeTest, MissingLogDirectory_IsAwaitedAndNotMade) {
  fs::remove_all(data_ / "Vornhalt");
  logInfo("lost");
  setSessionLogId(kSession);
  logError(5, "lost");
  EXPECT_FALSE(fs::exists(data_ / "Vornhalt"));
  fs::create_directories(logs_);
  logInfo("kept");
  ASSERT_EQ(files().size(), 1u);
  EXPECT_EQ(lines(), Texts{"<INFO> 0 kept"});
  EXPECT_EQ(recordsOf(files()[0])[0].sessionLogId, kSession);
}

TEST_F(LoggingFacadeTest, MissingRotationTime_IsTheFirstRecordOfEveryFile) {
  ports_.registry.deleteValue(test::kAgentKey, test::kRotationTime);
  logInfo("text");
  setSessionLogId(kSession);
  const std::string record =
      "<ERROR> -500 Failed to query (2) registry value: ZeltaLogRotationTime";
  EXPECT_EQ(lines(), (Texts{record, "<INFO> 0 text", record}));
}

TEST_F(LoggingFacadeTest, ProcessThatExitsWhileLogging_EndsAtOnce) {
  // The files are checked in the same process: the test may run in a separate one.
  const auto logAndExit = [this] {
    logInfo("last words");
    std::exit(lines() == Texts{"<INFO> 0 last words"} ? 0 : 1);
  };
  EXPECT_EXIT(logAndExit(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zelta
