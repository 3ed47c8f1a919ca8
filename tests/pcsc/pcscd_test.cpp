// The handler under the real pcscd, with the real driver module and an agent of the test's.
#include <gmock/gmock.h>
#include <reader.h>

#include <chrono>
#include <csignal>
#include <future>

#include "tests/pcsc/pcscd_fixture.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const Bytes kSelect{0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0};
const Bytes kSelectAnswer{0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0, 0x90, 0x00};

Bytes text(const std::string& value) { return Bytes(value.begin(), value.end()); }

class PcscdReaderTest : public PcscdTest {};
class PcscdCardTest : public PcscdTest {};
class PcscdEndTest : public PcscdTest {};
class PcscdRecoveryTest : public PcscdTest {};

// --- The reader ---

TEST_F(PcscdReaderTest, IsListedAndEmptyWithoutAnAgent) {
  start();
  EXPECT_THAT(client_->readers(), ElementsAre(kReaderName));
  EXPECT_FALSE(client_->state().present);
  EXPECT_EQ(client_->connect(), SCARD_E_NO_SMARTCARD);
}

TEST_F(PcscdReaderTest, IsNotThereWhenTheModuleCannotBeLoaded) {
  PrivatePcscd::Options options;
  options.modulePath = "/nowhere/libzelta_vsc.so";
  start(options);
  EXPECT_THAT(client_->readers(), IsEmpty());
  EXPECT_THAT(pcscd_.log(), HasSubstr("zelta: reader dev0 cannot be had: "));
  EXPECT_THAT(pcscd_.log(), HasSubstr("/nowhere/libzelta_vsc.so"));
  expectPromptEnd(SIGINT);
}

TEST_F(PcscdReaderTest, WorksWhenTheConfigurationNamesItTwiceOrNamesOthers) {
  PrivatePcscd::Options options;
  const std::string library = std::string("LIBPATH ") + ZELTA_HANDLER + "\n";
  options.readerConfiguration =
      "FRIENDLYNAME \"Zelta Virtual SmartCard Reader\"\n"
      "DEVICENAME zelta:0\n" +
      library + "FRIENDLYNAME \"Twice\"\nDEVICENAME zelta:0\n" + library +
      "FRIENDLYNAME \"Other\"\nDEVICENAME zelta:1\n" + library +
      "FRIENDLYNAME \"Nameless\"\nDEVICENAME zelta:x\n" + library;
  start(options);
  EXPECT_THAT(client_->readers(), ElementsAre(kReaderName));
  const std::string log = pcscd_.log();
  EXPECT_THAT(log, HasSubstr("zelta: reader dev0 is in use already: two entries of reader.conf "
                             "name it"));
  EXPECT_THAT(log, HasSubstr("zelta: the driver has no reader dev1"));
  EXPECT_THAT(log, HasSubstr("zelta: DEVICENAME 'zelta:x' has no reader index after its colon"));
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  EXPECT_TRUE(client_->waitForCard().has_value());
  expectPromptEnd(SIGINT);
}

TEST_F(PcscdReaderTest, CanBeNamedByItsChannelNumber) {
  PrivatePcscd::Options options;
  options.readerConfiguration = std::string(
                                    "FRIENDLYNAME \"Zelta Virtual SmartCard Reader\"\n"
                                    "CHANNELID 0\nLIBPATH ") +
                                ZELTA_HANDLER + "\n";
  start(options);
  EXPECT_THAT(client_->readers(), ElementsAre(kReaderName));
}

TEST_F(PcscdReaderTest, AttributesAreTheDrivers) {
  startWithCard();
  Bytes value;
  const auto get = [&](DWORD tag) { return client_->attribute(tag, &value); };
  EXPECT_EQ(get(SCARD_ATTR_VENDOR_NAME), SCARD_S_SUCCESS);
  EXPECT_EQ(value, text("Vornhalt"));
  EXPECT_EQ(get(SCARD_ATTR_VENDOR_IFD_TYPE), SCARD_S_SUCCESS);
  EXPECT_EQ(value, text("Zelta Virtual SmartCard Reader"));
  EXPECT_EQ(get(SCARD_ATTR_CHANNEL_ID), SCARD_S_SUCCESS);
  EXPECT_THAT(value, ElementsAre(0x00, 0x00, 0xF0, 0x00));
  EXPECT_EQ(get(SCARD_ATTR_CURRENT_PROTOCOL_TYPE), SCARD_S_SUCCESS);
  EXPECT_THAT(value, ElementsAre(2, 0, 0, 0));
  EXPECT_EQ(get(SCARD_ATTR_ATR_STRING), SCARD_S_SUCCESS);
  EXPECT_EQ(value, CardAgent::usualAtr());
  EXPECT_EQ(get(SCARD_ATTR_DEVICE_UNIT), SCARD_S_SUCCESS);
  EXPECT_THAT(value, ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(get(SCARD_ATTR_DEVICE_FRIENDLY_NAME_A), SCARD_S_SUCCESS);
  EXPECT_THAT(std::string(value.begin(), value.end()), HasSubstr("Zelta Virtual SmartCard Reader"));
  EXPECT_NE(get(SCARD_ATTR_VENDOR_IFD_VERSION), SCARD_S_SUCCESS);
}

TEST_F(PcscdReaderTest, FeaturesSayThatExtendedLengthIsFine) {
  startWithCard();
  Bytes features;
  ASSERT_EQ(client_->control(CM_IOCTL_GET_FEATURE_REQUEST, &features), SCARD_S_SUCCESS);
  ASSERT_EQ(features.size(), 6u);
  EXPECT_EQ(features[0], FEATURE_GET_TLV_PROPERTIES);
  const DWORD code = static_cast<DWORD>(features[2]) << 24 | static_cast<DWORD>(features[3]) << 16 |
                     static_cast<DWORD>(features[4]) << 8 | features[5];
  Bytes properties;
  ASSERT_EQ(client_->control(code, &properties), SCARD_S_SUCCESS);
  EXPECT_THAT(properties, ElementsAre(PCSCv2_PART10_PROPERTY_dwMaxAPDUDataSize, 4, 0, 0, 1, 0));
  EXPECT_EQ(client_->control(SCARD_CTL_CODE(1), &properties), SCARD_E_UNSUPPORTED_FEATURE);
}

// --- The card ---

TEST_F(PcscdCardTest, InsertionAndRemovalAreSeen) {
  start();
  ASSERT_TRUE(agent_.connect());
  const unsigned before = client_->state().counter;
  agent_.insert();
  const auto inserted = client_->waitForCard();
  ASSERT_TRUE(inserted.has_value());
  EXPECT_EQ(inserted->atr, CardAgent::usualAtr());
  EXPECT_EQ(inserted->counter, before + 1);
  agent_.remove();
  const auto removed = client_->waitForRemoval();
  ASSERT_TRUE(removed.has_value());
  EXPECT_EQ(removed->counter, before + 2);
}

TEST_F(PcscdCardTest, CommandsAreAnsweredUnderBothProtocols) {
  startWithCard();
  Bytes answer;
  for (const DWORD protocol : {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1}) {
    ASSERT_EQ(client_->disconnect(SCARD_RESET_CARD), SCARD_S_SUCCESS);
    ASSERT_EQ(client_->connect(SCARD_SHARE_SHARED, protocol), SCARD_S_SUCCESS);
    EXPECT_EQ(client_->protocol(), protocol);
    EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
    EXPECT_EQ(answer, kSelectAnswer);
  }
}

TEST_F(PcscdCardTest, LongestCommandAndAnswerPass) {
  startWithCard();
  const Bytes longest(7 + 65535 + 2, 0x5A);  // header, extended Lc, data, extended Le
  Bytes response(65536 + 2, 0xA5);
  Bytes received;
  agent_.respond([&](const Bytes& apdu) {
    received = apdu;
    return response;
  });
  Bytes answer;
  EXPECT_EQ(client_->transmit(longest, &answer), SCARD_S_SUCCESS);
  EXPECT_EQ(received, longest);
  EXPECT_EQ(answer, response);
  response.resize(MAX_BUFFER_SIZE_EXTENDED + 1);
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_E_NOT_TRANSACTED);
  response.resize(2);
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

TEST_F(PcscdCardTest, ResetsAndPowerCyclesLeaveAUsableCard) {
  startWithCard();
  Bytes answer;
  for (const DWORD disposition : {SCARD_RESET_CARD, SCARD_UNPOWER_CARD, SCARD_LEAVE_CARD}) {
    ASSERT_EQ(client_->reconnect(disposition), SCARD_S_SUCCESS) << disposition;
    EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS) << disposition;
    EXPECT_EQ(answer, kSelectAnswer);
    ASSERT_EQ(client_->disconnect(disposition), SCARD_S_SUCCESS);
    ASSERT_EQ(client_->connect(), SCARD_S_SUCCESS) << disposition;
    EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS) << disposition;
  }
}

TEST_F(PcscdCardTest, EachOfAHundredQuickSwapsIsSeen) {
  start();
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  auto now = client_->waitForCard();
  ASSERT_TRUE(now.has_value());
  const unsigned begin = now->counter;
  for (unsigned swap = 1; swap <= 100; ++swap) {
    const Bytes atr{0x3B, 0x81, 0x01, static_cast<std::uint8_t>(swap),
                    static_cast<std::uint8_t>(0x81 ^ 0x01 ^ swap)};
    agent_.swap(atr);
    now = client_->waitFor([&](const Client::State& state) {
      return state.present && state.counter >= begin + 2 * swap;
    });
    ASSERT_TRUE(now.has_value()) << swap;
    ASSERT_EQ(now->counter, begin + 2 * swap);
    ASSERT_EQ(now->atr, atr);
  }
}

// pcscd itself looks every five seconds.
TEST_F(PcscdCardTest, CardAfterABurstOfSwapsIsSeenSoon) {
  start();
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  ASSERT_TRUE(client_->waitForCard().has_value());
  const Bytes last{0x3B, 0x01, 0x5A};
  for (int burst = 0; burst < 5; ++burst) {
    for (int swap = 0; swap < 200; ++swap) agent_.swap();
    agent_.swap(last);
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_TRUE(client_->waitFor(
        [&](const Client::State& state) { return state.present && state.atr == last; }));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(3)) << burst;
  }
}

TEST_F(PcscdCardTest, EachOfAHundredSwapsUnderAConnectedClientFlagsItsHandle) {
  startWithCard();
  const unsigned begin = client_->state().counter;
  Bytes answer;
  for (unsigned swap = 1; swap <= 100; ++swap) {
    ASSERT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS) << swap;
    agent_.swap();
    ASSERT_TRUE(client_->waitFor([&](const Client::State& state) {
      return state.present && state.counter == begin + 2 * swap;
    })) << swap;
    ASSERT_EQ(client_->transmit(kSelect, &answer), SCARD_W_REMOVED_CARD) << swap;
    ASSERT_EQ(client_->reconnect(SCARD_LEAVE_CARD), SCARD_S_SUCCESS) << swap;
  }
}

// --- The agent ---

TEST_F(PcscdCardTest, AgentThatDiesIsACardThatLeftAndItsReturnOneThatEntered) {
  startWithCard();
  Bytes answer;
  for (int i = 0; i < 3; ++i) {
    agent_.die();
    ASSERT_TRUE(client_->waitForRemoval().has_value());
    EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_W_REMOVED_CARD);
    ASSERT_TRUE(agent_.connect());
    ASSERT_TRUE(client_->waitForCard().has_value());
    EXPECT_EQ(client_->reconnect(), SCARD_S_SUCCESS);
    EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
  }
}

TEST_F(PcscdCardTest, AgentThatComesAndGoesWithoutACardIsFollowed) {
  start();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(agent_.connect());
    agent_.die();
  }
  ASSERT_TRUE(agent_.connect());
  agent_.insert();
  EXPECT_TRUE(client_->waitForCard().has_value());
}

// --- Recovery ---

TEST_F(PcscdRecoveryTest, CardThatIsMuteAtInsertionAnswersTheNextConnect) {
  start();
  ASSERT_TRUE(agent_.connect());
  agent_.failResets(1, 1);  // the driver's own question is answered, pcscd's power-up is not
  agent_.insert();
  const auto mute = client_->waitForCard();
  ASSERT_TRUE(mute.has_value());
  EXPECT_TRUE(mute->mute);
  EXPECT_EQ(client_->connect(), SCARD_S_SUCCESS);
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

TEST_F(PcscdRecoveryTest, CardThatIsMuteOnceAfterIdlePowerOffIsUsableAgain) {
  startWithCard();
  // As after the idle time: without power, and nobody connected.
  ASSERT_EQ(client_->disconnect(SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
  const unsigned before = client_->state().counter;
  agent_.failResets(1);
  EXPECT_NE(client_->connect(), SCARD_S_SUCCESS);
  const auto back = client_->waitFor(
      [&](const Client::State& state) { return state.present && state.counter == before + 2; });
  ASSERT_TRUE(back.has_value());
  EXPECT_FALSE(back->mute);
  EXPECT_EQ(client_->connect(), SCARD_S_SUCCESS);
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

TEST_F(PcscdRecoveryTest, CardThatStaysMuteIsCycledOnceAndAnswersWhenItCan) {
  startWithCard();
  ASSERT_EQ(client_->disconnect(SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
  const unsigned before = client_->state().counter;
  agent_.failResets(1000);
  EXPECT_NE(client_->connect(), SCARD_S_SUCCESS);
  const auto back = client_->waitFor(
      [&](const Client::State& state) { return state.present && state.counter >= before + 2; });
  ASSERT_TRUE(back.has_value());
  EXPECT_TRUE(back->mute);
  EXPECT_EQ(client_->connect(), SCARD_W_UNPOWERED_CARD);
  EXPECT_EQ(client_->connect(), SCARD_W_UNPOWERED_CARD);
  EXPECT_EQ(client_->state().counter, before + 2);
  agent_.failResets(0);
  EXPECT_EQ(client_->connect(), SCARD_S_SUCCESS);
}

TEST_F(PcscdRecoveryTest, FailedResetOfAConnectedCardIsRecovered) {
  startWithCard();
  const unsigned before = client_->state().counter;
  agent_.failResets(1);
  EXPECT_NE(client_->reconnect(SCARD_RESET_CARD), SCARD_S_SUCCESS);
  ASSERT_TRUE(client_->waitFor(
      [&](const Client::State& state) { return state.present && state.counter == before + 2; }));
  EXPECT_EQ(client_->reconnect(SCARD_RESET_CARD), SCARD_S_SUCCESS);
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

TEST_F(PcscdRecoveryTest, CommandThatTheCardDoesNotAnswerIsRecovered) {
  startWithCard();
  const unsigned before = client_->state().counter;
  agent_.respond([](const Bytes&) { return Bytes(); });
  Bytes answer;
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_E_NO_SMARTCARD);
  agent_.respond(nullptr);
  ASSERT_TRUE(client_->waitFor(
      [&](const Client::State& state) { return state.present && state.counter == before + 2; }));
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_W_REMOVED_CARD);
  EXPECT_EQ(client_->reconnect(), SCARD_S_SUCCESS);
  EXPECT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
}

// --- The end ---

class PcscdSignalTest : public PcscdTest, public testing::WithParamInterface<int> {};

TEST_P(PcscdSignalTest, EndsPromptlyWithoutAnAgent) {
  start();
  expectPromptEnd(GetParam());
}

TEST_P(PcscdSignalTest, EndsPromptlyWithACardInUse) {
  startWithCard();
  Bytes answer;
  ASSERT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
  expectPromptEnd(GetParam());
}

TEST_P(PcscdSignalTest, EndsAgainAndAgainAndServesInBetween) {
  for (int i = 0; i < 5; ++i) {
    startWithCard();
    Bytes answer;
    ASSERT_EQ(client_->transmit(kSelect, &answer), SCARD_S_SUCCESS);
    expectPromptEnd(GetParam());
  }
}

TEST_P(PcscdSignalTest, EndsPromptlyDuringACommand) {
  startWithCard();
  std::promise<void> running;
  std::promise<void> done;
  agent_.respond([&](const Bytes& apdu) {
    running.set_value();
    done.get_future().wait();
    return apdu;
  });
  auto sent = std::async(std::launch::async, [this] {
    Bytes answer;
    return client_->transmit(kSelect, &answer);
  });
  running.get_future().wait();
  // The command has up to five seconds left before the driver gives up on the agent.
  const auto end = pcscd_.end(GetParam());
  ASSERT_TRUE(end.has_value());
  EXPECT_EQ(end->signal, 0);
  EXPECT_LT(end->took, std::chrono::seconds(20));
  done.set_value();
  EXPECT_NE(sent.get(), SCARD_S_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Orderly, PcscdSignalTest, testing::Values(SIGINT, SIGTERM),
                         [](const auto& each) {
                           return std::string(each.param == SIGINT ? "Interrupt" : "Terminate");
                         });

TEST_F(PcscdEndTest, EndsByItselfWhenNobodyUsesIt) {
  PrivatePcscd::Options options;
  options.arguments = {"--info", "--auto-exit"};
  start(options);
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  ASSERT_TRUE(client_->waitForCard().has_value());
  client_.reset();
  expectPromptEnd(SIGALRM);  // what its own alarm would send after a minute
}

}  // namespace
}  // namespace zelta::test
