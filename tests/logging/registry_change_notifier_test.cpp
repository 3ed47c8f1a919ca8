#include "logging/registry_change_notifier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "tests/doubles/logging/recording_logger.h"
#include "tests/support/collected.h"
#include "tests/support/logging_ports.h"

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

class RegistryChangeNotifierTest : public ::testing::Test {
 protected:
  RegistryChangeNotifierTest() { registry().setText(kWideKey, kWideValue, u"60"); }

  FakeRegistry& registry() { return ports_.registry; }
  FakeEvents& events() { return ports_.events; }
  RegistryChangeNotifier::Callback callback() {
    return [this](const std::string& text) { received_.add(text); };
  }
  std::unique_ptr<RegistryChangeNotifier> make(RegistryChangeNotifier::Callback callback) {
    return std::make_unique<RegistryChangeNotifier>(kKey, kValue, std::move(callback), &logger_);
  }
  std::unique_ptr<RegistryChangeNotifier> make() { return make(callback()); }
  void expectRefused(const std::string& text) {
    EXPECT_THAT([this] { make(); }, testing::ThrowsMessage<std::runtime_error>(text));
    EXPECT_TRUE(ports_.allClosed());
  }
  void change(const std::u16string& text) { ports_.change(kWideKey, kWideValue, text); }

  test::LoggingPorts ports_;
  test::RecordingLogger logger_;
  test::Collected<std::string> received_;
};

TEST_F(RegistryChangeNotifierTest, MissingArguments_AreRefusedInOrder) {
  using Notifier = RegistryChangeNotifier;
  const auto expectInvalid = [](const std::function<void()>& construct, const char* text) {
    try {
      construct();
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), text);
    }
  };
  expectInvalid([] { Notifier("", "", nullptr, nullptr); }, "Empty registry key provided: ");
  expectInvalid([] { Notifier(kKey, "", nullptr, nullptr); },
                "Empty registry value name provided: SOFTWARE\\Test");
  expectInvalid([] { Notifier(kKey, kValue, nullptr, nullptr); },
                "Null update callback provided: SOFTWARE\\Test\\Period");
  expectInvalid([this] { Notifier(kKey, kValue, callback(), nullptr); },
                "Null logger provided: SOFTWARE\\Test\\Period");
  EXPECT_EQ(registry().calls(FakeRegistry::Call::kOpenKey), 0u);
}

TEST_F(RegistryChangeNotifierTest, MissingKey_IsRefused) {
  registry().deleteKey(kWideKey);
  expectRefused("Failed to open registry key: SOFTWARE\\Test");
  EXPECT_EQ(events().calls(FakeEvents::Call::kCreate), 0u);
}

TEST_F(RegistryChangeNotifierTest, EventThatCannotBeMade_ClosesWhatWasOpened) {
  events().fail(FakeEvents::Call::kCreate, 8, 1);
  expectRefused(
      "Failed to create an event object for receiving change notifications on registry key: "
      "SOFTWARE\\Test");
  events().fail(FakeEvents::Call::kCreate, 8, 1, 1);
  expectRefused("Failed to create an event object for stopping thread: SOFTWARE\\Test\\Period");
}

TEST_F(RegistryChangeNotifierTest, ValueThatIsNoShortText_IsRefused) {
  registry().deleteValue(kWideKey, kWideValue);
  expectRefused("Failed to query (2) registry value: Period");
  registry().setDword(kWideKey, kWideValue, 60);
  expectRefused("Unexpected value type \"4\" from registry value: Period");
  registry().setValue(kWideKey, kWideValue, platform::kRegBinary, {0x36, 0x00});
  expectRefused("Unexpected value type \"3\" from registry value: Period");
  registry().setValue(kWideKey, kWideValue, platform::kRegSz, {});
  expectRefused("Unexpected value size of \"0\" from registry value: Period");
  registry().setText(kWideKey, kWideValue, std::u16string(256, u'1'));  // 514 bytes
  expectRefused("Failed to query (234) registry value: Period");
}

TEST_F(RegistryChangeNotifierTest, ExceptionOfTheFirstCallback_LeavesTheConstructor) {
  EXPECT_THROW(make([](const std::string&) { throw std::runtime_error("refused"); }),
               std::runtime_error);
  EXPECT_TRUE(ports_.allClosed());
}

struct TextCase {
  const char* name;
  std::u16string value;
  std::string text;
  std::uint32_t type = platform::kRegSz;
};

class TextOfTheValue : public RegistryChangeNotifierTest,
                       public testing::WithParamInterface<TextCase> {};

TEST_P(TextOfTheValue, IsDeliveredByTheConstructingThread) {
  registry().setText(kWideKey, kWideValue, GetParam().value, GetParam().type);
  std::thread::id thread;
  const auto notifier = make([&](const std::string& text) {
    thread = std::this_thread::get_id();
    received_.add(text);
  });
  EXPECT_EQ(received_.await(1), Texts{GetParam().text});
  EXPECT_EQ(thread, std::this_thread::get_id());
}

INSTANTIATE_TEST_SUITE_P(
    RegistryChangeNotifier, TextOfTheValue,
    testing::Values(TextCase{"Number", u"60", "60"}, TextCase{"Nothing", u"", ""},
                    TextCase{"EnvironmentReference_Unexpanded", u"%PATH%", "%PATH%",
                             platform::kRegExpandSz},
                    TextCase{"OtherAlphabets_AsUtf8", u"\u00C4 \u20AC \U0001F0CF",
                             "\xC3\x84 \xE2\x82\xAC \xF0\x9F\x83\x8F"},
                    TextCase{"ZeroUnit_EndsIt", std::u16string(u"12\0003", 4), "12"}),
    [](const auto& each) { return each.param.name; });

TEST_F(RegistryChangeNotifierTest, TextWithoutATerminator_EndsWithTheBuffer) {
  std::vector<std::uint8_t> data;
  for (int i = 0; i < 256; ++i) data.insert(data.end(), {'7', 0});
  registry().setValue(kWideKey, kWideValue, platform::kRegSz, data);
  const auto notifier = make();
  EXPECT_EQ(received_.await(1), Texts{std::string(256, '7')});
}

TEST_F(RegistryChangeNotifierTest, Changes_AreDelivered) {
  const auto notifier = make();
  change(u"1");
  change(u"2");
  EXPECT_EQ(received_.await(3), (Texts{"60", "1", "2"}));
  EXPECT_EQ(logger_.lines(), Lines());
}

TEST_F(RegistryChangeNotifierTest, ChangeOfAnotherValueOrSubkey_DeliversTheUnchangedText) {
  const auto notifier = make();
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
  registry().setDword(kWideKey, u"Other", 1);
  EXPECT_EQ(received_.await(2), (Texts{"60", "60"}));
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 2);
  registry().setDword(u"SOFTWARE\\Test\\Sub", u"Other", 1);
  EXPECT_EQ(received_.await(3), (Texts{"60", "60", "60"}));
}

TEST_F(RegistryChangeNotifierTest, ChangeWhileAChangeIsDealtWith_IsNotLost) {
  // The callback itself changes the value once more.
  const auto notifier = make([&](const std::string& text) {
    received_.add(text);
    if (text == "1") registry().setText(kWideKey, kWideValue, u"2");
  });
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
  registry().setText(kWideKey, kWideValue, u"1");
  EXPECT_EQ(received_.await(3), (Texts{"60", "1", "2"}));
}

struct FailureCase {
  const char* name;
  std::function<void(test::LoggingPorts&)> fail;  // two times
  RecordedLine line;
};

class FailureOfTheThread : public RegistryChangeNotifierTest,
                           public testing::WithParamInterface<FailureCase> {};

TEST_P(FailureOfTheThread, IsAnErrorRecordEachTimeAndTheThreadGoesOn) {
  GetParam().fail(ports_);
  const auto notifier = make();
  logger_.awaitLines(2);
  change(u"5");
  EXPECT_EQ(received_.await(2), (Texts{"60", "5"}));
  EXPECT_EQ(logger_.lines(), Lines(2, GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    RegistryChangeNotifier, FailureOfTheThread,
    testing::Values(
        FailureCase{
            "Subscription",
            [](auto& ports) { ports.registry.fail(FakeRegistry::Call::kNotifyChange, 1018, 2); },
            {1, 1018,
             "Failed to subscribe to change notification on registry key: SOFTWARE\\Test"}},
        FailureCase{"Wait",
                    [](auto& ports) { ports.events.fail(FakeEvents::Call::kWaitAny, 6, 2); },
                    {1, 6, "Failed to wait for event: SOFTWARE\\Test\\Period"}}),
    [](const auto& each) { return each.param.name; });

TEST_F(RegistryChangeNotifierTest, FailingReadAndCallback_AreErrorRecordsAndTheThreadGoesOn) {
  const auto notifier = make([&](const std::string& text) {
    if (text == "bad") throw std::runtime_error("refused {}");
    received_.add(text);
  });
  change(u"bad");
  registry().deleteValue(kWideKey, kWideValue);
  logger_.awaitLines(2);
  registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 3);
  change(u"5");
  EXPECT_EQ(received_.await(2), (Texts{"60", "5"}));
  EXPECT_EQ(logger_.lines(), (Lines{{1, -500, "refused {}"},
                                    {1, -500, "Failed to query (2) registry value: Period"}}));
}

TEST_F(RegistryChangeNotifierTest, SubscriptionThatNeverSucceeds_DoesNotKeepItFromEnding) {
  registry().fail(FakeRegistry::Call::kNotifyChange, 1018);
  auto notifier = make();
  logger_.awaitLines(10);
  notifier.reset();
  EXPECT_TRUE(ports_.allClosed());
}

TEST_F(RegistryChangeNotifierTest, FailingStopEvent_IsAnErrorRecord) {
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
  EXPECT_TRUE(ports_.allClosed());
}

TEST_F(RegistryChangeNotifierTest, DestroyedWhileItWaits_EndsAtOnce) {
  for (int i = 0; i < 200; ++i) {
    auto notifier = make();
    if (i % 2 == 0) events().waitForCalls(FakeEvents::Call::kWaitAny, 1);
    notifier.reset();
  }
  EXPECT_TRUE(ports_.allClosed());
  EXPECT_EQ(logger_.lines(), Lines());
}

TEST_F(RegistryChangeNotifierTest, DestroyedByItsOwnCallback_SaysSoBeforeTheProcessEnds) {
  const auto destroyFromTheCallback = [&] {
    logger_.printLines();  // EXPECT_DEATH reads standard error
    std::unique_ptr<RegistryChangeNotifier> notifier;
    notifier = make([&](const std::string& text) {
      if (text == "end") notifier.reset();
    });
    registry().waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
    registry().setText(kWideKey, kWideValue, u"end");
    registry().waitForCalls(FakeRegistry::Call::kCloseKey, 1);
    received_.await(1);
  };
  EXPECT_DEATH(destroyFromTheCallback(),
               "level 1 code -500 \"Unexpected error occurred during thread cleanup: Resource "
               "deadlock avoided\"");
}

}  // namespace
}  // namespace zelta
