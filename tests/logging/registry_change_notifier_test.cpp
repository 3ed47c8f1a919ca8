#include "logging/registry_change_notifier.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "tests/support/logging_ports.h"
#include "tests/support/recording_logger.h"

namespace zelta {
namespace {

using test::FakeEvents;
using test::FakeRegistry;
using test::RecordedLine;
using Texts = std::vector<std::string>;
using Lines = std::vector<RecordedLine>;

constexpr char kKey[] = "SOFTWARE\\Test";
constexpr char16_t kWideKey[] = u"SOFTWARE\\Test";
constexpr char kValue[] = "Period";
constexpr char16_t kWideValue[] = u"Period";

// What a callback was given. Any thread.
class Received {
 public:
  void add(const std::string& text) {
    {
      platform::MutexLock lock(mutex_);
      texts_.push_back(text);
    }
    added_.notifyAll();
  }
  Texts await(std::size_t count) {
    platform::MutexLock lock(mutex_);
    added_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return texts_.size() >= count; });
    return texts_;
  }

 private:
  platform::Mutex mutex_;
  platform::ConditionVariable added_;
  Texts texts_ ZELTA_GUARDED_BY(mutex_);
};

class RegistryChangeNotifierTest : public ::testing::Test {
 protected:
  RegistryChangeNotifierTest() { registry().setText(kWideKey, kWideValue, u"60"); }

  FakeRegistry& registry() { return ports_.registry; }
  FakeEvents& events() { return ports_.events; }
  RegistryChangeNotifier::Callback callback() {
    return [this](const std::string& text) { received_.add(text); };
  }
  std::unique_ptr<RegistryChangeNotifier> make() {
    return std::make_unique<RegistryChangeNotifier>(kKey, kValue, callback(), &logger_);
  }
  std::string runtimeError() {
    try {
      make();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no exception";
  }
  // Changes the value and waits until the thread has dealt with it.
  void change(const std::u16string& text) {
    registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
    const std::size_t calls = registry().calls(FakeRegistry::Call::kNotifyChange);
    registry().setText(kWideKey, kWideValue, text);
    registry().waitForCalls(FakeRegistry::Call::kNotifyChange, calls + 1);
  }
  void expectAllClosed() {
    EXPECT_EQ(registry().openKeys(), 0u);
    EXPECT_EQ(events().open(), 0u);
  }

  test::LoggingPorts ports_;
  test::RecordingLogger logger_;
  Received received_;
};

std::string invalidArgument(const std::function<void()>& make) {
  try {
    make();
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "no exception";
}

TEST_F(RegistryChangeNotifierTest, MissingArgumentsAreRefusedInOrder) {
  using Notifier = RegistryChangeNotifier;
  EXPECT_EQ(invalidArgument([] { Notifier("", "", nullptr, nullptr); }),
            "Empty registry key provided: ");
  EXPECT_EQ(invalidArgument([] { Notifier(kKey, "", nullptr, nullptr); }),
            "Empty registry value name provided: SOFTWARE\\Test");
  EXPECT_EQ(invalidArgument([] { Notifier(kKey, kValue, nullptr, nullptr); }),
            "Null update callback provided: SOFTWARE\\Test\\Period");
  EXPECT_EQ(invalidArgument([this] { Notifier(kKey, kValue, callback(), nullptr); }),
            "Null logger provided: SOFTWARE\\Test\\Period");
  EXPECT_EQ(registry().calls(FakeRegistry::Call::kOpenKey), 0u);
}

TEST_F(RegistryChangeNotifierTest, MissingKeyIsRefused) {
  registry().deleteKey(kWideKey);
  EXPECT_EQ(runtimeError(), "Failed to open registry key: SOFTWARE\\Test");
  EXPECT_EQ(events().calls(FakeEvents::Call::kCreate), 0u);
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, FailingFirstEventClosesTheKey) {
  events().fail(FakeEvents::Call::kCreate, 8, 1);
  EXPECT_EQ(runtimeError(),
            "Failed to create an event object for receiving change notifications on registry key: "
            "SOFTWARE\\Test");
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, FailingSecondEventClosesTheKeyAndTheFirst) {
  events().fail(FakeEvents::Call::kCreate, 8, 1, 1);
  EXPECT_EQ(runtimeError(),
            "Failed to create an event object for stopping thread: SOFTWARE\\Test\\Period");
  EXPECT_EQ(events().calls(FakeEvents::Call::kCreate), 2u);
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, MissingValueIsRefused) {
  registry().deleteValue(kWideKey, kWideValue);
  EXPECT_EQ(runtimeError(), "Failed to query (2) registry value: Period");
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, ValueOfAnotherTypeIsRefused) {
  registry().setDword(kWideKey, kWideValue, 60);
  EXPECT_EQ(runtimeError(), "Unexpected value type \"4\" from registry value: Period");
  registry().setValue(kWideKey, kWideValue, platform::kRegBinary, {0x36, 0x00});
  EXPECT_EQ(runtimeError(), "Unexpected value type \"3\" from registry value: Period");
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, ValueWithoutAByteIsRefused) {
  registry().setValue(kWideKey, kWideValue, platform::kRegSz, {});
  EXPECT_EQ(runtimeError(), "Unexpected value size of \"0\" from registry value: Period");
}

TEST_F(RegistryChangeNotifierTest, ValueBeyondTheBufferIsRefused) {
  registry().setText(kWideKey, kWideValue, std::u16string(256, u'1'));  // 514 bytes
  EXPECT_EQ(runtimeError(), "Failed to query (234) registry value: Period");
}

TEST_F(RegistryChangeNotifierTest, ExceptionOfTheCallbackLeavesTheConstructor) {
  const auto fail = [](const std::string&) { throw std::runtime_error("refused"); };
  EXPECT_THROW(RegistryChangeNotifier(kKey, kValue, fail, &logger_), std::runtime_error);
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, ValueIsDeliveredWhileConstructing) {
  std::thread::id thread;
  const RegistryChangeNotifier notifier(
      kKey, kValue,
      [&](const std::string& text) {
        thread = std::this_thread::get_id();
        received_.add(text);
      },
      &logger_);
  EXPECT_EQ(received_.await(1), Texts{"60"});
  EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(RegistryChangeNotifierTest, EmptyTextIsATextOfItsOwn) {
  registry().setText(kWideKey, kWideValue, u"");
  const auto notifier = make();
  EXPECT_EQ(received_.await(1), Texts{""});
}

TEST_F(RegistryChangeNotifierTest, ExpandableTextIsNotExpanded) {
  registry().setText(kWideKey, kWideValue, u"%PATH%", platform::kRegExpandSz);
  const auto notifier = make();
  EXPECT_EQ(received_.await(1), Texts{"%PATH%"});
}

TEST_F(RegistryChangeNotifierTest, TextIsUtf8) {
  registry().setText(kWideKey, kWideValue, u"\u00C4 \u20AC \U0001F0CF");
  const auto notifier = make();
  EXPECT_EQ(received_.await(1), Texts{"\xC3\x84 \xE2\x82\xAC \xF0\x9F\x83\x8F"});
}

TEST_F(RegistryChangeNotifierTest, TextEndsAtItsFirstZeroUnit) {
  registry().setText(kWideKey, kWideValue,
                     std::u16string(u"12\0"
                                    u"34",
                                    5));
  const auto notifier = make();
  EXPECT_EQ(received_.await(1), Texts{"12"});
}

TEST_F(RegistryChangeNotifierTest, TextWithoutATerminatorEndsWithTheBuffer) {
  std::vector<std::uint8_t> data;
  for (int i = 0; i < 256; ++i) data.insert(data.end(), {'7', 0});
  registry().setValue(kWideKey, kWideValue, platform::kRegSz, data);
  const auto notifier = make();
  EXPECT_EQ(received_.await(1), Texts{std::string(256, '7')});
}

TEST_F(RegistryChangeNotifierTest, ChangesAreDelivered) {
  const auto notifier = make();
  change(u"1");
  change(u"2");
  EXPECT_EQ(received_.await(3), (Texts{"60", "1", "2"}));
  EXPECT_EQ(logger_.lines(), Lines());
}

TEST_F(RegistryChangeNotifierTest, ChangeOfAnotherValueOrSubkeyDeliversTheUnchangedText) {
  const auto notifier = make();
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
  registry().setDword(kWideKey, u"Other", 1);
  EXPECT_EQ(received_.await(2), (Texts{"60", "60"}));
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 2);
  registry().setDword(u"SOFTWARE\\Test\\Sub", u"Other", 1);
  EXPECT_EQ(received_.await(3), (Texts{"60", "60", "60"}));
}

TEST_F(RegistryChangeNotifierTest, ChangeWhileAChangeIsDealtWithIsNotLost) {
  // The callback itself changes the value once more.
  const RegistryChangeNotifier notifier(
      kKey, kValue,
      [&](const std::string& text) {
        received_.add(text);
        if (text == "1") registry().setText(kWideKey, kWideValue, u"2");
      },
      &logger_);
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
  registry().setText(kWideKey, kWideValue, u"1");
  EXPECT_EQ(received_.await(3), (Texts{"60", "1", "2"}));
}

TEST_F(RegistryChangeNotifierTest, FailingReadIsAnErrorRecordAndTheThreadGoesOn) {
  const auto notifier = make();
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
  registry().deleteValue(kWideKey, kWideValue);
  logger_.awaitLines(1);
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 2);
  change(u"5");
  EXPECT_EQ(received_.await(2), (Texts{"60", "5"}));
  EXPECT_EQ(logger_.lines(), (Lines{{1, -500, "Failed to query (2) registry value: Period"}}));
}

TEST_F(RegistryChangeNotifierTest, ExceptionOfTheCallbackIsAnErrorRecordAndTheThreadGoesOn) {
  const RegistryChangeNotifier notifier(
      kKey, kValue,
      [&](const std::string& text) {
        if (text == "bad") throw std::runtime_error("refused {}");
        received_.add(text);
      },
      &logger_);
  change(u"bad");
  change(u"5");
  EXPECT_EQ(received_.await(2), (Texts{"60", "5"}));
  EXPECT_EQ(logger_.lines(), (Lines{{1, -500, "refused {}"}}));
}

TEST_F(RegistryChangeNotifierTest, FailingSubscriptionIsAnErrorRecordEachTimeItIsTried) {
  registry().fail(FakeRegistry::Call::kNotifyChange, 1018, 3);
  const auto notifier = make();
  logger_.awaitLines(3);
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 4);
  change(u"5");
  EXPECT_EQ(received_.await(2), (Texts{"60", "5"}));
  const RecordedLine line{
      1, 1018, "Failed to subscribe to change notification on registry key: SOFTWARE\\Test"};
  EXPECT_EQ(logger_.lines(), (Lines{line, line, line}));
}

TEST_F(RegistryChangeNotifierTest, SubscriptionThatNeverSucceedsDoesNotKeepItFromEnding) {
  registry().fail(FakeRegistry::Call::kNotifyChange, 1018);
  auto notifier = make();
  logger_.awaitLines(10);
  notifier.reset();
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, FailingWaitIsAnErrorRecordAndTheThreadGoesOn) {
  events().fail(FakeEvents::Call::kWaitAny, 6, 2);
  const auto notifier = make();
  logger_.awaitLines(2);
  change(u"5");
  EXPECT_EQ(received_.await(2), (Texts{"60", "5"}));
  const RecordedLine line{1, 6, "Failed to wait for event: SOFTWARE\\Test\\Period"};
  EXPECT_EQ(logger_.lines(), (Lines{line, line}));
}

TEST_F(RegistryChangeNotifierTest, FailingStopEventIsAnErrorRecord) {
  auto notifier = make();
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
  events().waitForCalls(FakeEvents::Call::kWaitAny, 1);
  events().fail(FakeEvents::Call::kSet, 6, 1);
  std::thread destroyer([&] { notifier.reset(); });
  logger_.awaitLines(1);
  // The thread still waits; the next change lets it look at what it was asked.
  registry().setText(kWideKey, kWideValue, u"5");
  destroyer.join();
  EXPECT_EQ(logger_.lines(),
            (Lines{{1, 6, "Failed to set event to stop thread: SOFTWARE\\Test\\Period"}}));
  expectAllClosed();
}

TEST_F(RegistryChangeNotifierTest, DestroyingEndsAWaitingThreadAtOnce) {
  for (int i = 0; i < 200; ++i) {
    auto notifier = make();
    if (i % 2 == 0) events().waitForCalls(FakeEvents::Call::kWaitAny, 1);
    notifier.reset();
  }
  expectAllClosed();
  EXPECT_EQ(logger_.lines(), Lines());
}

// Says on the standard error what was logged, where a dying process is read.
class PrintingLogger final : public logging::LoggerBase {
 public:
  PrintingLogger() : LoggerBase(3) {}
  std::unique_ptr<logging::FileLogger> createChildForSession(const std::string&) override {
    return nullptr;
  }
  std::unique_ptr<logging::FileLogger> createChildForCategory(std::uint32_t) override {
    return nullptr;
  }
  void log(const std::string&, logging::Level, const std::int32_t&) override {}
  void log(const std::string& message, std::int32_t level, std::int32_t resultCode) override {
    std::fprintf(stderr, "%d %d %s\n", level, resultCode, message.c_str());
  }
  void writeLine(const std::string&, std::uint32_t, std::int32_t, std::int32_t,
                 const std::string&) override {}
};

TEST_F(RegistryChangeNotifierTest, ThreadThatCannotBeJoinedIsAnErrorRecord) {
  // A callback must not destroy its notifier. It is told so before the process ends.
  PrintingLogger logger;
  const auto destroyFromTheCallback = [&] {
    std::unique_ptr<RegistryChangeNotifier> notifier;
    notifier = std::make_unique<RegistryChangeNotifier>(
        kKey, kValue,
        [&](const std::string& text) {
          if (text == "end") notifier.reset();
        },
        &logger);
    registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
    registry().setText(kWideKey, kWideValue, u"end");
    registry().waitForCalls(FakeRegistry::Call::kCloseKey, 1);
    received_.await(1);
  };
  EXPECT_DEATH(destroyFromTheCallback(),
               "1 -500 Unexpected error occurred during thread cleanup: Resource deadlock "
               "avoided");
}

}  // namespace
}  // namespace zelta
