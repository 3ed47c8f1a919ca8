// Input that no well-meaning caller or agent sends: it ends in a status, a log line and a reader
// that goes on working.
#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/module/hosted_module.h"

namespace zelta::test {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::uint32_t kAllOnes = 0xFFFFFFFF;

class HostileTest : public HostedModuleTest {
 protected:
  // The whole log, after the driver's end.
  std::vector<std::string> endAndLog() {
    end();
    return world_.logSummaries();
  }
  // The reader after a card came whose ATR is this.
  void connectCardWithAtr(Bytes atr) {
    agent_.setCardOut();
    agent_.die();
    connectAgent();
    const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(agent_.insert(std::move(atr)));
    ASSERT_TRUE(insertion->wait(kLong));
  }
};

TEST_F(HostileTest, EveryControlWithEveryShortInputAndOutputEndsInAStatus) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  for (std::uint32_t code = 0x00310000; code <= 0x00310040; code += 4) {
    if (code == IOCTL_SMARTCARD_IS_ABSENT) continue;  // waits for the card to go
    for (std::size_t in = 0; in <= 9; ++in) {
      for (std::size_t out = 0; out <= 5; ++out) {
        const host::IoResult result = control(code, Bytes(in, 0xFF), out);
        ASSERT_NE(result.status, host::kTimedOut) << std::hex << code;
        ASSERT_LE(result.output.size(), out);
      }
    }
  }
  expectWorkingReader();
}

TEST_F(HostileTest, ShortNumbersAreRefused) {
  for (const std::uint32_t code : {IOCTL_SMARTCARD_POWER, IOCTL_SMARTCARD_GET_ATTRIBUTE,
                                   IOCTL_SMARTCARD_SET_ATTRIBUTE, IOCTL_SMARTCARD_SET_PROTOCOL}) {
    EXPECT_EQ(status(code, {1, 2, 3}, 64), answer::kInvalidArgument) << std::hex << code;
  }
  EXPECT_THAT(endAndLog(),
              Contains("<ERROR> 87 [POWR]IOCTL_SMARTCARD_POWER: input too short (3 bytes)"));
}

TEST_F(HostileTest, UnknownPowerOperationsSucceedAndDoNothing) {
  for (const std::uint32_t operation : {3u, 5u, 0x80000000u, kAllOnes}) {
    const host::IoResult result = control(IOCTL_SMARTCARD_POWER, number(operation), 64);
    EXPECT_EQ(result.status, answer::kSuccess);
    EXPECT_EQ(result.information, 0u);
  }
  EXPECT_EQ(state(), SCARD_ABSENT);
}

TEST_F(HostileTest, TransmitWithAHeaderThatIsCutIsRefused) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  const Bytes whole = transmitBuffer(SCARD_PROTOCOL_T1, {});
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(status(IOCTL_SMARTCARD_TRANSMIT, {whole.begin(), whole.begin() + size}, 64),
              answer::kInvalidDeviceState);
  }
  EXPECT_THAT(
      endAndLog(),
      Contains(
          "<ERROR> -1073741436 [TRSM]STATUS_INVALID_DEVICE_STATE; failed to get request data"));
}

TEST_F(HostileTest, TransmitForAnotherProtocolIsRefused) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  for (const std::uint32_t protocol : {0u, 1u, 3u, kAllOnes}) {
    EXPECT_EQ(status(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(protocol, {1, 2}), 64),
              answer::kInvalidDeviceState);
  }
  EXPECT_EQ(transmit({1, 2}), CardAgent::responseTo({1, 2}));
  EXPECT_THAT(endAndLog(), Contains("<ERROR> -1073741436 [TRSM]STATUS_INVALID_DEVICE_STATE; "
                                    "protocol:FFFFFFFF"));
}

TEST_F(HostileTest, HeaderLengthOfATransmitIsNotBelieved) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  for (const std::uint32_t length : {0u, 7u, 100u, kAllOnes}) {
    const host::IoResult result =
        control(IOCTL_SMARTCARD_TRANSMIT,
                number(SCARD_PROTOCOL_T1) + number(length) + Bytes{0x10, 0x20}, 64);
    EXPECT_EQ(result.output,
              transmitBuffer(SCARD_PROTOCOL_T1, CardAgent::responseTo({0x10, 0x20})));
  }
}

TEST_F(HostileTest, AnswerThatDoesNotFitIsNotWritten) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  const host::IoResult result =
      control(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, {1, 2, 3}), 9);
  EXPECT_EQ(result.status, answer::kSuccess);
  EXPECT_EQ(result.information, 13u);
  EXPECT_EQ(result.output, Bytes(9));
  EXPECT_EQ(control(IOCTL_SMARTCARD_GET_STATE, {}, 0).status, answer::kGenFailure);
  EXPECT_THAT(endAndLog(), Contains("<ERROR> 31 GetOutputMemory failed"));
}

TEST_F(HostileTest, AtrsThatAreNoneAreRefusedByTheParserAlone) {
  const std::vector<Bytes> atrs = {
      {0x3C, 0x00},
      {0x3B},
      {0x00},
      Bytes(33, 0xFF),
      Bytes(100000, 0x3B),
      {0x3B, 0xFF},                    // interface bytes announced, none there
      {0x3F, 0x80, 0x80, 0x80, 0x80},  // one TD after the other
      {0x3B, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
  for (const Bytes& atr : atrs) {
    connectCardWithAtr(atr);
    EXPECT_EQ(state(), SCARD_SWALLOWED);
    // It is the caller's business what it makes of the bytes.
    EXPECT_EQ(control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), atr.size()).output, atr);
  }
  expectWorkingReader();
  const auto log = endAndLog();
  EXPECT_THAT(log, Contains("<ERROR> -500 ATR has invalid initial byte TS"));
  EXPECT_THAT(log, Contains("<ERROR> -500 ATR query failed (size = 1). Failed to initialize "
                            "protocols."));
}

TEST_F(HostileTest, AnswersOfLengthZeroFail) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  agent_.setCardOut();
  EXPECT_EQ(status(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, {1}), 64),
            answer::kNoMedia);
  EXPECT_EQ(attribute(SCARD_ATTR_ATR_STRING).status, answer::kNoMedia);
  agent_.setCardIn(CardAgent::atrOfT1());
  EXPECT_EQ(transmit({1}), CardAgent::responseTo({1}));
  const auto log = endAndLog();
  EXPECT_THAT(log, Contains(HasSubstr("[QueryTransmit]Invalid APDU response size (0)")));
  EXPECT_THAT(log, Contains("<ERROR> -500 [QueryATR]Invalid ATR size (0)"));
}

TEST_F(HostileTest, FourGibibytesAnnouncedByAnAgentThatGoesFailTheQuery) {
  for (int round = 0; round < 3; ++round) {
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(agent_.connectSilently());
    ASSERT_TRUE(agent_.command().readNumber().has_value());
    ASSERT_TRUE(agent_.command().writeNumber(kAllOnes));
    ASSERT_TRUE(agent_.command().write(Bytes(100000, 0x3B)));
    agent_.die();
    ASSERT_TRUE(waiting->wait(kLong));
    EXPECT_EQ(waiting->result().status, answer::kCancelled);
  }
  expectWorkingReader();
}

TEST_F(HostileTest, SessionIdsThatAreNoneAreSkipped) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  ASSERT_TRUE(agent_.sendSessionLogId(""));
  ASSERT_TRUE(agent_.sendSessionLogId(std::string(100000, 'x')));
  ASSERT_TRUE(agent_.sendSessionLogId(std::string("\0\n%s{}", 6)));
  ASSERT_TRUE(agent_.sendSessionLogId("last"));
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal->wait(kLong));
  expectWorkingReader();
}

TEST_F(HostileTest, EmptySessionIdIsLogged) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  ASSERT_TRUE(agent_.sendSessionLogId(""));
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal->wait(kLong));
  EXPECT_THAT(endAndLog(),
              Contains("<ERROR> -501 Session log ID size is 0. Session log ID not set"));
}

TEST_F(HostileTest, FourGibibytesOfSessionIdEndWithTheAgent) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kSessionLogId));
  ASSERT_TRUE(agent_.events().writeNumber(kAllOnes));
  ASSERT_TRUE(agent_.events().write(Bytes(100000, 'x')));
  agent_.die();
  ASSERT_TRUE(removal->wait(kLong));
  expectWorkingReader();
  EXPECT_THAT(endAndLog(), Contains(HasSubstr("Failed to read session log id")));
}

TEST_F(HostileTest, UnknownEventsAreSkipped) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  for (const std::uint32_t code : {3u, 7u, 0x80000000u, kAllOnes}) {
    ASSERT_TRUE(agent_.sendEvent(code));
  }
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal->wait(kLong));
  expectWorkingReader();
  const auto log = endAndLog();
  EXPECT_THAT(log, Contains("<ERROR> -500 Unknown event received:7"));
  EXPECT_THAT(log, Contains("<ERROR> -500 Unknown event received:-1"));
}

TEST_F(HostileTest, SilentAgentHoldsUpNobodyButTheCallers) {
  agent_.setCardIn(CardAgent::atrOfT1());
  const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_TRUE(agent_.connect([](const CardAgent::Command& command) -> std::optional<Bytes> {
    if (command.code == AgentCommand::kQueryTransmit) return std::nullopt;
    return CardAgent::atrOfT0();
  }));
  ASSERT_TRUE(waiting->wait(kLong));
  auto transmit = controlOnThread(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(0, {1, 2}), 64);
  ASSERT_TRUE(agent_.waitForCommands(AgentCommand::kQueryTransmit, 1));
  EXPECT_EQ(state(), SCARD_SWALLOWED);
  EXPECT_EQ(transmit.wait_for(0s), std::future_status::timeout);
  EXPECT_EQ(transmit.get().status, answer::kNoMedia);
  EXPECT_THAT(endAndLog(), Contains("<ERROR> -500 [QueryTransmit]Timeout"));
}

}  // namespace
}  // namespace zelta::test
