// Every I/O control through the whole module, over real pipes to an agent.
#include <algorithm>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/module/hosted_module.h"

namespace zelta::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class IoControlsTest : public HostedModuleTest {
 protected:
  static Bytes text(const std::string& characters) {
    Bytes bytes(characters.begin(), characters.end());
    bytes.push_back(0);
    return bytes;
  }
  std::uint32_t numberAttribute(std::uint32_t tag) {
    const host::IoResult result = attribute(tag);
    EXPECT_EQ(result.status, answer::kSuccess);
    return toNumber(result.output);
  }
};

TEST_F(IoControlsTest, OneInterfaceIsThereToBeOpened) {
  EXPECT_THAT(host_->interfaces(), ElementsAre(L"dev0"));
}

TEST_F(IoControlsTest, FreshReaderHasNoCard) {
  EXPECT_EQ(state(), SCARD_ABSENT);
  EXPECT_EQ(status(IOCTL_SMARTCARD_IS_ABSENT), answer::kSuccess);
  EXPECT_EQ(status(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64), answer::kNoMedia);
  EXPECT_EQ(status(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T1)), answer::kNoMedia);
  EXPECT_EQ(attribute(SCARD_ATTR_ATR_STRING).status, answer::kNoMedia);
  EXPECT_EQ(attribute(SCARD_ATTR_CURRENT_PROTOCOL_TYPE).status, answer::kNoMedia);
  const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  EXPECT_FALSE(waiting->completed());
  waiting->cancel();
  ASSERT_TRUE(waiting->completed());
  EXPECT_EQ(waiting->result().status, answer::kCancelled);
}

TEST_F(IoControlsTest, AttributesOfAFreshReader) {
  EXPECT_EQ(attribute(SCARD_ATTR_VENDOR_NAME).output, text("Vornhalt"));
  EXPECT_EQ(attribute(SCARD_ATTR_VENDOR_IFD_TYPE).output, text("Zelta Virtual SmartCard Reader"));
  EXPECT_EQ(numberAttribute(SCARD_ATTR_CHANNEL_ID), 0x00F00000u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_PROTOCOL_TYPES), SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_DEFAULT_CLK), 4000u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_MAX_CLK), 5000u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_DEFAULT_DATA_RATE), 10752u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_MAX_DATA_RATE), 10752u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_MAX_IFSD), 254u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_CHARACTERISTICS), 0u);
  EXPECT_EQ(numberAttribute(RPC_TYPE), 0u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_CURRENT_IFSC), 0u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_DEVICE_UNIT), 0u);
  EXPECT_EQ(attribute(PIPE_NAME).output, text(commandPipeName(0)));
  EXPECT_EQ(attribute(EVENT_PIPE_NAME).output, text(eventPipeName(0)));
  EXPECT_EQ(attribute(PIPE_NAME + 2).status, answer::kNotSupported);
  EXPECT_EQ(attribute(0x00010102).status, answer::kNotSupported);
}

TEST_F(IoControlsTest, SetAttributeTakesDeviceInUseOnly) {
  EXPECT_EQ(status(IOCTL_SMARTCARD_SET_ATTRIBUTE, number(SCARD_ATTR_DEVICE_IN_USE) + Bytes(12)),
            answer::kSuccess);
  EXPECT_EQ(status(IOCTL_SMARTCARD_SET_ATTRIBUTE, number(SCARD_ATTR_VENDOR_NAME)),
            answer::kNotSupported);
}

TEST_F(IoControlsTest, OtherControlsAreNotSupported) {
  for (const std::uint32_t code :
       {IOCTL_SMARTCARD_CONFISCATE, IOCTL_SMARTCARD_EJECT, IOCTL_SMARTCARD_SWALLOW,
        IOCTL_SMARTCARD_GET_LAST_ERROR, IOCTL_SMARTCARD_GET_PERF_CNTR, 0u, 0xFFFFFFFFu}) {
    EXPECT_EQ(status(code), answer::kNotSupported) << std::hex << code;
  }
}

TEST_F(IoControlsTest, CardComesAndWorks) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  EXPECT_EQ(state(), SCARD_SWALLOWED);
  EXPECT_EQ(status(IOCTL_SMARTCARD_IS_PRESENT), answer::kSuccess);

  const host::IoResult reset = control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64);
  EXPECT_EQ(reset.status, answer::kSuccess);
  EXPECT_EQ(reset.output, CardAgent::atrOfT1());
  EXPECT_EQ(state(), SCARD_NEGOTIABLE);

  EXPECT_EQ(status(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T0)), answer::kNotSupported);
  EXPECT_EQ(state(), SCARD_NEGOTIABLE);
  const host::IoResult set =
      control(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1), 4);
  EXPECT_EQ(set.status, answer::kSuccess);
  EXPECT_EQ(set.information, 0u);
  EXPECT_EQ(state(), SCARD_SPECIFIC);
  EXPECT_TRUE(agent_.waitForCommands(AgentCommand::kNotifyCardReady, 1));
  EXPECT_EQ(numberAttribute(SCARD_ATTR_CURRENT_PROTOCOL_TYPE), SCARD_PROTOCOL_T1);

  const Bytes apdu = {0x00, 0xA4, 0x04, 0x00};
  const host::IoResult sent =
      control(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, apdu), 64);
  EXPECT_EQ(sent.output, transmitBuffer(SCARD_PROTOCOL_T1, CardAgent::responseTo(apdu)));
  EXPECT_EQ(sent.information, sent.output.size());

  EXPECT_EQ(attribute(SCARD_ATTR_ATR_STRING).output, CardAgent::atrOfT1());
  EXPECT_EQ(numberAttribute(SCARD_ATTR_DEFAULT_DATA_RATE), 43010u);
  EXPECT_EQ(numberAttribute(SCARD_ATTR_MAX_DATA_RATE), 53763u);

  EXPECT_EQ(control(IOCTL_SMARTCARD_POWER, number(SCARD_WARM_RESET), 64).output,
            CardAgent::atrOfT1());
  EXPECT_EQ(status(IOCTL_SMARTCARD_POWER, number(SCARD_POWER_DOWN)), answer::kSuccess);
  EXPECT_EQ(state(), SCARD_SWALLOWED);
}

TEST_F(IoControlsTest, CardGoesWhileItsRemovalIsWaitedFor) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  EXPECT_FALSE(removal->completed());
  agent_.setCardOut();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal->wait(kLong));
  EXPECT_EQ(removal->result().status, answer::kSuccess);
  EXPECT_EQ(state(), SCARD_ABSENT);
}

TEST_F(IoControlsTest, ResetOfACardThatFailsIsUnrecognisedMedia) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  agent_.setCardOut();
  EXPECT_EQ(status(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64),
            answer::kUnrecognizedMedia);
  EXPECT_EQ(state(), SCARD_PRESENT);
}

TEST_F(IoControlsTest, EmptyCommandIsAnsweredWithoutTheAgent) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  EXPECT_THAT(transmit({}), ElementsAre(0x69, 0x01));
  EXPECT_EQ(agent_.commands(AgentCommand::kQueryTransmit), 0);
}

TEST_F(IoControlsTest, LongCommandAndResponsePass) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  Bytes apdu(1 << 20);
  for (std::size_t i = 0; i < apdu.size(); ++i) apdu[i] = static_cast<std::uint8_t>(i * 7);
  EXPECT_EQ(transmit(apdu), CardAgent::responseTo(apdu));
}

TEST_F(IoControlsTest, SessionOfTheAgentIsInTheLogUntilTheCardGoes) {
  const std::string session = "12345678-9abc-def0-1234-56789abcdef0";
  const std::string none = "00000000-0000-0000-0000-000000000000";
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  ASSERT_TRUE(agent_.sendSessionLogId(session));
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal->wait(kLong));
  end();
  const std::vector<LogLine> log = world_.log();
  const auto removed = std::find_if(
      log.begin(), log.end(), [](const LogLine& line) { return line.message == "Card removed"; });
  ASSERT_NE(removed, log.end());
  EXPECT_EQ(removed->sessionLogId, session);
  EXPECT_EQ(log.front().sessionLogId, none);
  EXPECT_EQ(log.back().sessionLogId, none);
}

TEST_F(IoControlsTest, EachControlLeavesItsLinesInTheLog) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  transmit({1});
  state();
  end();
  const auto lines = world_.logSummaries();
  for (const char* line :
       {"<INFO> 0 CreateDeviceInterface [device name: dev0]", "<INFO> 0 IoQueue Created.",
        "<INFO> 0 CMyDevice::OnD0Entry: NumReaders[1]",
        "<INFO> 0 CMyDevice::OnD0Entry: reader[0] initialized, vendor name=Vornhalt",
        "<INFO> 0 [IOCT]IOCTL 00310028 - In 0 Out 0", "<INFO> 0 [IPRE]IOCTL_SMARTCARD_IS_PRESENT",
        "<INFO> 0 [POWR]SCARD_COLD_RESET", "<INFO> 0 [POWR]State:00000005",
        "<INFO> 0 [SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:00000002", "<INFO> 0 PROTOCOL SET: T1",
        "<INFO> 0 [NotifyCardReady]Notification sent", "<INFO> 0 [TRSM]IOCTL_SMARTCARD_TRANSMIT",
        "<INFO> 0 [GSTA]IOCTL_SMARTCARD_GET_STATE", "<INFO> 0 STATE:00000006",
        "<DEBUG> 0 Server thread completed", "<DEBUG> 0 Start section:CMyDevice::shutDown"}) {
    EXPECT_THAT(lines, Contains(line));
  }
}

}  // namespace
}  // namespace zelta::test
