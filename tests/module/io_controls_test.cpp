// The I/O controls through the whole module, over real pipes to an agent.

#include "tests/module/hosted_module.h"

namespace zelta::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class IoControlsTest : public HostedModuleTest {
 protected:
  Bytes attribute(std::uint32_t tag) {
    return control(IOCTL_SMARTCARD_GET_ATTRIBUTE, numberBytes(tag), 256).output;
  }
};

TEST_F(IoControlsTest, FreshReader_HasNoCard) {
  EXPECT_THAT(host_->interfaces(), ElementsAre(L"dev0"));
  EXPECT_EQ(state(), SCARD_ABSENT);
  EXPECT_EQ(statusOf(IOCTL_SMARTCARD_IS_ABSENT), status::kSuccess);
  EXPECT_EQ(statusOf(IOCTL_SMARTCARD_POWER, numberBytes(SCARD_COLD_RESET), 64), status::kNoMedia);
  EXPECT_EQ(statusOf(IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(SCARD_PROTOCOL_T1)),
            status::kNoMedia);
  const std::string name = commandPipeName(0);
  EXPECT_EQ(attribute(PIPE_NAME), Bytes(name.c_str(), name.c_str() + name.size() + 1));
  const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  EXPECT_FALSE(waiting->completed());
  waiting->cancel();
  ASSERT_TRUE(waiting->completed());
  EXPECT_EQ(waiting->result().status, status::kCancelled);
}

TEST_F(IoControlsTest, CardThatComes_WorksAndGoes) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  EXPECT_EQ(state(), SCARD_SWALLOWED);
  EXPECT_EQ(statusOf(IOCTL_SMARTCARD_IS_PRESENT), status::kSuccess);
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);

  EXPECT_EQ(control(IOCTL_SMARTCARD_POWER, numberBytes(SCARD_COLD_RESET), 64).output,
            CardAgent::atrOfT1());
  EXPECT_EQ(state(), SCARD_NEGOTIABLE);
  EXPECT_EQ(statusOf(IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(SCARD_PROTOCOL_T0)),
            status::kNotSupported);
  EXPECT_EQ(state(), SCARD_NEGOTIABLE);
  EXPECT_EQ(
      statusOf(IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1), 4),
      status::kSuccess);
  EXPECT_EQ(state(), SCARD_SPECIFIC);
  EXPECT_TRUE(agent_.waitForCommands(AgentCommand::kNotifyCardReady, 1));
  EXPECT_EQ(attribute(SCARD_ATTR_CURRENT_PROTOCOL_TYPE), numberBytes(SCARD_PROTOCOL_T1));
  EXPECT_EQ(attribute(SCARD_ATTR_ATR_STRING), CardAgent::atrOfT1());
  EXPECT_EQ(attribute(SCARD_ATTR_DEFAULT_DATA_RATE), numberBytes(43010));

  EXPECT_EQ(transmit({0x00, 0xA4, 0x04, 0x00}), CardAgent::responseTo({0x00, 0xA4, 0x04, 0x00}));
  Bytes apdu(1 << 20);
  for (std::size_t i = 0; i < apdu.size(); ++i) apdu[i] = static_cast<std::uint8_t>(i * 7);
  EXPECT_EQ(transmit(apdu), CardAgent::responseTo(apdu));

  EXPECT_EQ(control(IOCTL_SMARTCARD_POWER, numberBytes(SCARD_WARM_RESET), 64).output,
            CardAgent::atrOfT1());
  EXPECT_EQ(statusOf(IOCTL_SMARTCARD_POWER, numberBytes(SCARD_POWER_DOWN)), status::kSuccess);
  EXPECT_EQ(state(), SCARD_SWALLOWED);
  EXPECT_FALSE(removal->completed());
  agent_.setCardOut();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal->wait(kLong));
  EXPECT_EQ(removal->result().status, status::kSuccess);
  EXPECT_EQ(state(), SCARD_ABSENT);
}

TEST_F(IoControlsTest, SilentAgent_HoldsUpNobodyButItsCallerUnlessCallbacksAreSerialised) {
  agent_.setCardIn(CardAgent::atrOfT1());
  const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_TRUE(agent_.connect([](const CardAgent::Command& command) -> std::optional<Bytes> {
    if (command.code == AgentCommand::kQueryTransmit) return std::nullopt;
    return Bytes{0x3B, 0x00};
  }));
  ASSERT_TRUE(waiting->wait(kLong));
  auto transmit = controlOnThread(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(0, {1, 2}), 64);
  ASSERT_TRUE(agent_.waitForCommands(AgentCommand::kQueryTransmit, 1));
  EXPECT_EQ(state(), SCARD_SWALLOWED);
  const bool timedOut = world_.countInLog("[QueryTransmit]Timeout") > 0;
  EXPECT_EQ(timedOut, areCallbacksSerialised());
  EXPECT_EQ(transmit.get().status, status::kNoMedia);
  end();
  EXPECT_THAT(world_.logSummaries(), Contains("<ERROR> -500 [QueryTransmit]Timeout"));
}

}  // namespace
}  // namespace zelta::test
