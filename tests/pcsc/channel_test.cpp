#include "pcsc/channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::succeededWith;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr framework::HRESULT kUnrecognizedMedia = framework::hresult(0x800706F9);

using ChannelPowerTest = test::ChannelTest;
using ChannelProtocolTest = test::ChannelTest;

// --- Presence ---

TEST_F(ChannelPowerTest, PresenceIsAnsweredWithoutAskingTheDriver) {
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  insert();
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
  reader_->removeCard();
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER) + reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE),
            0u);
}

// --- Power ---

TEST_F(ChannelPowerTest, PowerUpIsAColdResetAndGivesTheAtr) {
  insert();
  const Reply reply = channel_->power(IFD_POWER_UP);
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_EQ(reply.bytes, kAtr);
  const auto requests = reader_->requests(IOCTL_SMARTCARD_POWER);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_THAT(requests[0].input, ElementsAre(1, 0, 0, 0));
  EXPECT_EQ(requests[0].outputCapacity, static_cast<std::size_t>(MAX_ATR_SIZE));
}

TEST_F(ChannelPowerTest, ResetIsAWarmResetAlsoOfAnUnpoweredCard) {
  insert();
  EXPECT_EQ(channel_->power(IFD_RESET).bytes, kAtr);
  EXPECT_THAT(reader_->requests(IOCTL_SMARTCARD_POWER)[0].input, ElementsAre(2, 0, 0, 0));
}

TEST_F(ChannelPowerTest, PowerDownGivesNoAtr) {
  insertAndPowerUp();
  const Reply reply = channel_->power(IFD_POWER_DOWN);
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_THAT(reply.bytes, IsEmpty());
  EXPECT_THAT(reader_->requests(IOCTL_SMARTCARD_POWER)[1].input, ElementsAre(0, 0, 0, 0));
}

TEST_F(ChannelPowerTest, NoCardIsPoweredUpOrReset) {
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(channel_->power(IFD_RESET).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER), 0u);
}

TEST_F(ChannelPowerTest, PowerDownWithoutACardSucceedsAndLeavesTheDriverAlone) {
  EXPECT_EQ(channel_->power(IFD_POWER_DOWN).code, IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER), 0u);
}

TEST_F(ChannelPowerTest, PowerDownThatFailsIsTold) {
  insertAndPowerUp();
  answerPower(failedWith(kGenFailure));
  EXPECT_EQ(channel_->power(IFD_POWER_DOWN).code, IFD_ERROR_POWER_ACTION);
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
}

TEST_F(ChannelPowerTest, UnknownActionIsNotSupported) {
  insert();
  EXPECT_EQ(channel_->power(503).code, IFD_NOT_SUPPORTED);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER), 0u);
}

TEST_F(ChannelPowerTest, LongestAtrIsTaken) {
  insert();
  Bytes atr(MAX_ATR_SIZE, 0xF0);  // four groups of interface bytes and 15 historical ones
  atr[0] = 0x3B;
  atr[1] = 0xFF;
  atr[17] = 0x00;
  answerPower(succeededWith(atr));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, atr);
}

TEST_F(ChannelPowerTest, AtrThatIsTooLongIsAFailedPowerUp) {
  insert();
  // The driver writes nothing then and says how much there would have been.
  answerPower({framework::kOk, MAX_ATR_SIZE + 1, {}});
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ERROR_POWER_ACTION);
  EXPECT_THAT(log_->lines(),
              ElementsAre("2 the card's answer to reset has 34 bytes; 1 to 33 are possible"));
}

TEST_F(ChannelPowerTest, EmptyAtrIsAFailedPowerUp) {
  insert();
  answerPower(succeededWith({}));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ERROR_POWER_ACTION);
  EXPECT_THAT(log_->lines(),
              ElementsAre("2 the card's answer to reset has 0 bytes; 1 to 33 are possible"));
}

TEST_F(ChannelPowerTest, BytesThatCannotBeAnAtrAreAFailedPowerUpAndAreLogged) {
  insert();
  answerPower(succeededWith({0x3B, 0x95, 0x13}));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ERROR_POWER_ACTION);
  EXPECT_EQ(channel_->power(IFD_RESET).code, IFD_ERROR_POWER_ACTION);
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);  // mute
  EXPECT_THAT(log_->lines(), ElementsAre("2 the card sent no valid ATR: 3B 95 13",
                                         "2 the card sent no valid ATR: 3B 95 13"));
  answerPower(succeededWith(kAtr));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
}

TEST_F(ChannelPowerTest, CardThatAnsweredBeforeIsCycledByBytesThatCannotBeAnAtr) {
  insertAndPowerUp();
  answerPower(succeededWith({0x90, 0x00}));
  EXPECT_EQ(channel_->power(IFD_RESET).code, IFD_ERROR_POWER_ACTION);
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  poll();
  poll();
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
}

TEST_F(ChannelPowerTest, MuteCardStaysAndIsPoweredUpByTheNextTry) {
  insert();
  const framework::HRESULT failures[] = {kUnrecognizedMedia, status::kNoMedia};
  const RESPONSECODE codes[] = {IFD_ERROR_POWER_ACTION, IFD_ICC_NOT_PRESENT};
  for (int i = 0; i < 2; ++i) {
    answerPower(failedWith(failures[i]));
    EXPECT_EQ(channel_->power(IFD_POWER_UP).code, codes[i]);
    EXPECT_EQ(channel_->presence(), IFD_SUCCESS);  // no cycle: it had never answered
  }
  answerPower(succeededWith(kAtr));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
}

TEST_F(ChannelPowerTest, CardThatAnsweredBeforeIsCycledOnceWhenItNoLongerDoes) {
  for (const DWORD action : {IFD_POWER_UP, IFD_RESET}) {
    answerPower(succeededWith(kAtr));
    insertAndPowerUp();
    channel_->power(IFD_POWER_DOWN);
    answerPower(failedWith(kUnrecognizedMedia));
    EXPECT_EQ(channel_->power(action).code, IFD_ERROR_POWER_ACTION);
    EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
    poll();  // for the removal
    EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
    poll();  // for the card that is back
    EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
    // Still mute: it stays so, until it answers again.
    EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ERROR_POWER_ACTION);
    EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
    answerPower(succeededWith(kAtr));
    EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
    remove();
  }
}

TEST_F(ChannelPowerTest, AtrOfACardThatLeftMeanwhileIsNotGiven) {
  insert();
  reader_->answer(IOCTL_SMARTCARD_POWER, [this](const auto&) {
    reader_->removeCard();
    return succeededWith(kAtr);
  });
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(channel_->attribute(SCARD_ATTR_ATR_STRING).code, IFD_ICC_NOT_PRESENT);
}

// --- Protocol ---

TEST_F(ChannelProtocolTest, ProtocolIsChosenByItsMask) {
  insertAndPowerUp();
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T0), IFD_SUCCESS);
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_SUCCESS);
  const auto requests = reader_->requests(IOCTL_SMARTCARD_SET_PROTOCOL);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_THAT(requests[0].input, ElementsAre(1, 0, 0, 0));
  EXPECT_THAT(requests[1].input, ElementsAre(2, 0, 0, 0));
}

TEST_F(ChannelProtocolTest, OtherProtocolsAreRefusedWithoutTheDriver) {
  insertAndPowerUp();
  for (const DWORD protocol : {0, 3, 4, 0x80}) {
    EXPECT_EQ(channel_->setProtocol(protocol), IFD_PROTOCOL_NOT_SUPPORTED) << protocol;
  }
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_SET_PROTOCOL), 0u);
}

TEST_F(ChannelProtocolTest, ProtocolThatTheCardDoesNotOfferIsRefused) {
  insertAndPowerUp();
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL,
                  [](const auto&) { return failedWith(status::kNotSupported); });
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T0), IFD_PROTOCOL_NOT_SUPPORTED);
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
}

TEST_F(ChannelProtocolTest, NoMediaIsACardThatLeft) {
  insertAndPowerUp();
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL,
                  [](const auto&) { return failedWith(status::kNoMedia); });
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  poll();
  poll();
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
}

TEST_F(ChannelProtocolTest, NoProtocolWithoutACard) {
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_SET_PROTOCOL), 0u);
}

TEST_F(ChannelProtocolTest, CardThatLeavesMeanwhileIsNotPresent) {
  insertAndPowerUp();
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL, [this](const auto&) {
    reader_->removeCard();
    return succeededWith({});
  });
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_ICC_NOT_PRESENT);
}

TEST_F(ChannelProtocolTest, OtherFailuresAreErrors) {
  insertAndPowerUp();
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL,
                  [](const auto&) { return failedWith(kGenFailure); });
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_COMMUNICATION_ERROR);
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL,
                  [](const auto&) { return failedWith(host::kTimedOut); });
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_RESPONSE_TIMEOUT);
}

}  // namespace
}  // namespace zelta::pcsc
