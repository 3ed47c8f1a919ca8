// The handler under the real pcscd, with the real driver module and an agent of the test's.
#include <chrono>
#include <future>

#include "contract/wire.h"
#include "tests/pcsc/pcscd_fixture.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kName[] = "FRIENDLYNAME \"Zelta Virtual SmartCard Reader\"\n";
const std::string kLibrary = std::string("LIBPATH ") + ZELTA_HANDLER + "\n";

using PcscdReaderTest = PcscdTest;
using PcscdCardTest = PcscdTest;
using PcscdRecoveryTest = PcscdTest;
using PcscdEndTest = PcscdTest;

// --- The reader ---

TEST_F(PcscdReaderTest, WithoutAnAgent_IsListedAndEmptyAlsoByItsChannelNumber) {
  for (const std::string& configuration : {std::string(), kName + ("CHANNELID 0\n" + kLibrary)}) {
    PrivatePcscd::Options options;
    options.readerConfiguration = configuration;
    start(options);
    EXPECT_THAT(client_->readers(), ElementsAre(kReaderName));
    EXPECT_FALSE(client_->state().present);
    EXPECT_EQ(client_->connect(), SCARD_E_NO_SMARTCARD);
    client_.reset();
    expectPromptEnd(SIGINT);
  }
}

TEST_F(PcscdReaderTest, ConfigurationThatNamesItTwiceAndOthers_LeavesItUsable) {
  PrivatePcscd::Options options;
  options.readerConfiguration = kName + ("DEVICENAME zelta:0\n" + kLibrary) +
                                "FRIENDLYNAME \"Twice\"\nDEVICENAME zelta:0\n" + kLibrary +
                                "FRIENDLYNAME \"Other\"\nDEVICENAME zelta:1\n" + kLibrary +
                                "FRIENDLYNAME \"Nameless\"\nDEVICENAME zelta:x\n" + kLibrary;
  start(options);
  EXPECT_THAT(client_->readers(), ElementsAre(kReaderName));
  for (const char* line :
       {"zelta: reader dev0 is in use already: two entries of reader.conf name it",
        "zelta: the driver has no reader dev1",
        "zelta: DEVICENAME 'zelta:x' has no reader index after its colon"}) {
    EXPECT_THAT(pcscd_.log(), HasSubstr(line));
  }
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  EXPECT_TRUE(client_->waitForCard().has_value());
}

TEST_F(PcscdReaderTest, AttributesAndFeatures_AreTheDriversAndTheHandlers) {
  startConnected();
  const auto text = [](const std::string& value) { return Bytes(value.begin(), value.end()); };
  const std::pair<DWORD, Bytes> rows[] = {
      {SCARD_ATTR_VENDOR_NAME, text("Vornhalt")},
      {SCARD_ATTR_VENDOR_IFD_TYPE, text("Zelta Virtual SmartCard Reader")},
      {SCARD_ATTR_CHANNEL_ID, {0x00, 0x00, 0xF0, 0x00}},
      {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, {2, 0, 0, 0}},
      {SCARD_ATTR_ATR_STRING, CardAgent::usualAtr()},
      {SCARD_ATTR_DEVICE_UNIT, {0, 0, 0, 0}},
  };
  for (const auto& [tag, value] : rows) EXPECT_EQ(client_->attribute(tag).bytes, value) << tag;
  const Bytes name = client_->attribute(SCARD_ATTR_DEVICE_FRIENDLY_NAME_A).bytes;
  EXPECT_THAT(std::string(name.begin(), name.end()), HasSubstr("Zelta Virtual SmartCard Reader"));
  EXPECT_NE(client_->attribute(SCARD_ATTR_VENDOR_IFD_VERSION).result, SCARD_S_SUCCESS);

  const Bytes features = client_->control(CM_IOCTL_GET_FEATURE_REQUEST).bytes;
  ASSERT_EQ(features.size(), 6u);
  EXPECT_EQ(features[0], FEATURE_GET_TLV_PROPERTIES);
  const DWORD code = static_cast<DWORD>(features[2]) << 24 | static_cast<DWORD>(features[3]) << 16 |
                     static_cast<DWORD>(features[4]) << 8 | features[5];
  EXPECT_THAT(client_->control(code).bytes,
              ElementsAre(PCSCv2_PART10_PROPERTY_dwMaxAPDUDataSize, 4, 0, 0, 1, 0));
  EXPECT_EQ(client_->control(SCARD_CTL_CODE(1)).result, SCARD_E_UNSUPPORTED_FEATURE);
}

// --- The card ---

TEST_F(PcscdCardTest, InsertionAndRemoval_AreSeen) {
  start();
  for (int i = 0; i < 5; ++i) {  // an agent that comes and goes without a card changes nothing
    ASSERT_TRUE(agent_.connect());
    agent_.die();
  }
  ASSERT_TRUE(agent_.connect());
  const unsigned before = client_->state().counter;
  agent_.insert();
  const auto inserted = client_->waitForCard();
  ASSERT_TRUE(inserted.has_value());
  EXPECT_EQ(inserted->atr, CardAgent::usualAtr());
  EXPECT_EQ(inserted->counter, before + 1);
  agent_.remove();
  const auto removed = client_->waitForCard(false);
  ASSERT_TRUE(removed.has_value());
  EXPECT_EQ(removed->counter, before + 2);
}

TEST_F(PcscdCardTest, ResetsPowerCyclesAndBothProtocols_LeaveAUsableCard) {
  startConnected();
  for (const DWORD disposition : {SCARD_RESET_CARD, SCARD_UNPOWER_CARD, SCARD_LEAVE_CARD}) {
    ASSERT_EQ(client_->reconnect(disposition), SCARD_S_SUCCESS) << disposition;
    expectUsable();
    ASSERT_EQ(client_->disconnect(disposition), SCARD_S_SUCCESS);
    ASSERT_EQ(client_->connect(), SCARD_S_SUCCESS) << disposition;
    expectUsable();
  }
  for (const DWORD protocol : {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1}) {
    ASSERT_EQ(client_->disconnect(SCARD_RESET_CARD), SCARD_S_SUCCESS);
    ASSERT_EQ(client_->connect(protocol), SCARD_S_SUCCESS);
    EXPECT_EQ(client_->protocol(), protocol);
    expectUsable();
  }
}

TEST_F(PcscdCardTest, LongestCommandAndAnswer_Pass) {
  startConnected();
  const Bytes longest(7 + 65535 + 2, 0x5A);  // header, extended Lc, data, extended Le
  Bytes response(65536 + 2, 0xA5);
  Bytes received;
  agent_.respond([&](const Bytes& apdu) {
    received = apdu;
    return response;
  });
  EXPECT_EQ(client_->transmit(longest).bytes, response);
  EXPECT_EQ(received, longest);
  response.resize(MAX_BUFFER_SIZE_EXTENDED + 1);
  EXPECT_EQ(client_->transmit(kSelect).result, SCARD_E_NOT_TRANSACTED);
  response.resize(2);
  EXPECT_EQ(client_->transmit(kSelect).result, SCARD_S_SUCCESS);
}

TEST_F(PcscdCardTest, HundredSwapsUnderAConnectedClient_EachFlagItsHandle) {
  startConnected();
  const unsigned begin = client_->state().counter;
  for (unsigned swap = 1; swap <= 100; ++swap) {
    ASSERT_EQ(client_->transmit(kSelect).result, SCARD_S_SUCCESS) << swap;
    agent_.swap();
    const auto now = client_->waitForCounter(true, begin + 2 * swap);
    ASSERT_TRUE(now && now->counter == begin + 2 * swap) << swap;
    ASSERT_EQ(client_->transmit(kSelect).result, SCARD_W_REMOVED_CARD) << swap;
    ASSERT_EQ(client_->reconnect(SCARD_LEAVE_CARD), SCARD_S_SUCCESS) << swap;
  }
}

// --- A card that leaves during a command ---

// How the card leaves, and what the agent then says of the command.
enum class Loss { kRemovalWithAnEmptyAnswer, kRemovalWithoutAnAnswer, kAgentThatDies };

const char* nameOf(Loss loss) {
  if (loss == Loss::kAgentThatDies) return "AgentThatDies";
  return loss == Loss::kRemovalWithAnEmptyAnswer ? "RemovalWithAnEmptyAnswer"
                                                 : "RemovalWithoutAnAnswer";
}

class PcscdRemovalTest : public PcscdTest, public testing::WithParamInterface<Loss> {};

TEST_P(PcscdRemovalTest, DuringACommand_EndsItAndMarksTheHandle) {
  startConnected();
  const unsigned before = client_->state().counter;
  std::promise<void> lost;
  // The driver itself waits five seconds for an answer that does not come.
  if (GetParam() == Loss::kRemovalWithoutAnAnswer) agent_.ignore(AgentCommand::kQueryTransmit, 1);
  agent_.respond([&](const Bytes&) {
    lost.get_future().wait();
    return Bytes();  // as an agent answers for a card that was pulled
  });
  auto sent = std::async(std::launch::async, [this] { return client_->transmit(kSelect).result; });
  ASSERT_TRUE(agent_.waitForCommands(AgentCommand::kQueryTransmit, 1));
  if (GetParam() == Loss::kAgentThatDies) {
    agent_.events().close();
  } else {
    agent_.remove();
  }
  if (GetParam() == Loss::kRemovalWithAnEmptyAnswer) lost.set_value();
  EXPECT_THAT(sent.get(), testing::AnyOf(SCARD_E_NO_SMARTCARD, SCARD_W_REMOVED_CARD));
  if (GetParam() != Loss::kRemovalWithAnEmptyAnswer) lost.set_value();
  agent_.respond(nullptr);
  // pcscd shows an empty reader at once after such an answer; the event marks the handle.
  ASSERT_TRUE(client_->waitForCounter(false, before + 1));
  EXPECT_EQ(client_->transmit(kSelect).result, SCARD_W_REMOVED_CARD);
  if (GetParam() == Loss::kAgentThatDies) {
    ASSERT_TRUE(agent_.connect());
  } else {
    agent_.insert();
  }
  ASSERT_TRUE(client_->waitForCard().has_value());
  EXPECT_EQ(client_->reconnect(), SCARD_S_SUCCESS);
  expectUsable();
}

INSTANTIATE_TEST_SUITE_P(Losses, PcscdRemovalTest,
                         testing::Values(Loss::kRemovalWithAnEmptyAnswer,
                                         Loss::kRemovalWithoutAnAnswer, Loss::kAgentThatDies),
                         [](const auto& each) { return nameOf(each.param); });

// --- A card that does not answer ---

TEST_F(PcscdRecoveryTest, CardThatIsMuteAtInsertion_AnswersTheNextConnect) {
  start();
  ASSERT_TRUE(agent_.connect());
  agent_.failResets(1, 1);  // the driver's own question is answered, pcscd's power-up is not
  agent_.insert();
  const auto mute = client_->waitForCard();
  ASSERT_TRUE(mute.has_value());
  EXPECT_TRUE(mute->mute);
  EXPECT_EQ(client_->connect(), SCARD_S_SUCCESS);
  expectUsable();
}

TEST_F(PcscdRecoveryTest, CardThatIsMuteAfterIdlePowerOff_IsReinsertedOnce) {
  for (const int failures : {1, 1000}) {
    startConnected();
    // As after the idle time: without power, and nobody connected.
    ASSERT_EQ(client_->disconnect(SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
    const unsigned before = client_->state().counter;
    agent_.failResets(failures);
    EXPECT_NE(client_->connect(), SCARD_S_SUCCESS);
    const auto back = client_->waitForCounter(true, before + 2);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->mute, failures > 1);
    if (back->mute) {
      EXPECT_EQ(client_->connect(), SCARD_W_UNPOWERED_CARD);
      EXPECT_EQ(client_->connect(), SCARD_W_UNPOWERED_CARD);
    }
    EXPECT_EQ(client_->state().counter, before + 2);
    agent_.failResets(0);
    EXPECT_EQ(client_->connect(), SCARD_S_SUCCESS);
    expectUsable();
    client_.reset();
    agent_.die();
    expectPromptEnd(SIGTERM);
  }
}

// --- The end ---

class PcscdSignalTest : public PcscdTest, public testing::WithParamInterface<int> {};

TEST_P(PcscdSignalTest, EndsItPromptlyWithoutAnAgentAndAgainAndAgainWithACardInUse) {
  start();
  client_.reset();
  expectPromptEnd(GetParam());
  for (int i = 0; i < 5; ++i) {
    startConnected();
    expectUsable();
    client_.reset();
    expectPromptEnd(GetParam());
  }
}

TEST_P(PcscdSignalTest, EndsItPromptlyDuringACommand) {
  startConnected();
  std::promise<void> running;
  std::promise<void> done;
  agent_.respond([&](const Bytes& apdu) {
    running.set_value();
    done.get_future().wait();
    return apdu;
  });
  auto sent = std::async(std::launch::async, [this] { return client_->transmit(kSelect).result; });
  running.get_future().wait();
  // The command has up to five seconds left before the driver gives up on the agent.
  expectPromptEnd(GetParam(), std::chrono::seconds(20));
  done.set_value();
  EXPECT_NE(sent.get(), SCARD_S_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Orderly, PcscdSignalTest, testing::Values(SIGINT, SIGTERM),
                         [](const auto& each) {
                           return each.param == SIGINT ? "Interrupt" : "Terminate";
                         });

TEST_F(PcscdEndTest, NobodyUsesIt_EndsByItself) {
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
