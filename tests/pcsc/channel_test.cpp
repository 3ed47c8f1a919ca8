#include "pcsc/channel.h"

#include "contract/attributes.h"
#include "contract/reader_states.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::kAtr;
using test::kGenFailure;
using test::succeededWith;
using testing::ElementsAre;
using testing::IsEmpty;
using ChannelTest = test::ChannelTest;

constexpr framework::HRESULT kMute = status::kUnrecognizedMedia;

TEST_F(ChannelTest, Presence_IsAnsweredWithoutAskingTheDriver) {
  EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
  insert();
  EXPECT_EQ(channel_->checkPresence(), IFD_SUCCESS);
  reader_->removeCard();
  EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER) + reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE),
            0u);
}

// --- Power ---

TEST_F(ChannelTest, PowerActions_BecomeTheDriversOperations) {
  insert();
  struct {
    DWORD action;
    std::uint8_t operation;
    std::size_t capacity;
    Bytes bytes;
  } const rows[] = {{IFD_RESET, 2, MAX_ATR_SIZE, kAtr},  // of an unpowered card
                    {IFD_POWER_UP, 1, MAX_ATR_SIZE, kAtr},
                    {IFD_POWER_DOWN, 0, 0, {}}};
  for (const auto& row : rows) {
    const Reply reply = channel_->power(row.action);
    EXPECT_EQ(reply.code, IFD_SUCCESS);
    EXPECT_EQ(reply.bytes, row.bytes);
    const auto request = reader_->requests(IOCTL_SMARTCARD_POWER).back();
    EXPECT_THAT(request.input, ElementsAre(row.operation, 0, 0, 0));
    EXPECT_EQ(request.outputCapacity, row.capacity);
  }
  EXPECT_EQ(channel_->power(503).code, IFD_NOT_SUPPORTED);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER), 3u);
}

TEST_F(ChannelTest, PowerActionsWithoutACard_LeaveTheDriverAlone) {
  EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(channel_->power(IFD_RESET).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(channel_->power(IFD_POWER_DOWN).code, IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_POWER), 0u);
}

TEST_F(ChannelTest, LongestAtr_IsGiven) {
  insert();
  Bytes atr(MAX_ATR_SIZE, 0xF0);  // four groups of interface bytes and 15 historical ones
  atr[0] = 0x3B;
  atr[1] = 0xFF;
  atr[17] = 0x00;
  reader_->answerWith(IOCTL_SMARTCARD_POWER, succeededWith(atr));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, atr);
}

struct PowerFailure {
  const char* name;
  bool answeredBefore;  // the card, since it entered
  DWORD action;
  host::IoResult answer;
  RESPONSECODE code;
  bool isReinserted;
  const char* line;  // in the log; empty: none
};

constexpr char kNoAtr[] = "2 the card sent no valid ATR: 3B 95 13";

const PowerFailure kPowerFailures[] = {
    {"MuteNewCard", false, IFD_POWER_UP, failedWith(kMute), IFD_ERROR_POWER_ACTION, false, ""},
    {"NewCardWithoutMedia", false, IFD_POWER_UP, failedWith(status::kNoMedia), IFD_ICC_NOT_PRESENT,
     false, ""},
    // The driver then writes nothing and returns the full length.
    {"AtrThatIsTooLong",
     false,
     IFD_POWER_UP,
     {framework::kOk, MAX_ATR_SIZE + 1, {}},
     IFD_ERROR_POWER_ACTION,
     false,
     "2 the card's answer to reset has 34 bytes; 1 to 33 are possible"},
    {"EmptyAtr", false, IFD_POWER_UP, succeededWith({}), IFD_ERROR_POWER_ACTION, false,
     "2 the card's answer to reset has 0 bytes; 1 to 33 are possible"},
    {"BytesThatAreNoAtr", false, IFD_POWER_UP, succeededWith({0x3B, 0x95, 0x13}),
     IFD_ERROR_POWER_ACTION, false, kNoAtr},
    {"BytesThatAreNoAtrAfterAReset", false, IFD_RESET, succeededWith({0x3B, 0x95, 0x13}),
     IFD_ERROR_POWER_ACTION, false, kNoAtr},
    {"CardThatNoLongerPowersUp", true, IFD_POWER_UP, failedWith(kMute), IFD_ERROR_POWER_ACTION,
     true, ""},
    {"CardThatNoLongerResets", true, IFD_RESET, failedWith(kMute), IFD_ERROR_POWER_ACTION, true,
     ""},
    {"CardThatNoLongerSendsAnAtr", true, IFD_RESET, succeededWith({0x3B, 0x95, 0x13}),
     IFD_ERROR_POWER_ACTION, true, kNoAtr},
    {"PowerDownThatFails", true, IFD_POWER_DOWN, failedWith(kGenFailure), IFD_ERROR_POWER_ACTION,
     false, ""},
};

class PowerFailureTest : public ChannelTest, public testing::WithParamInterface<PowerFailure> {};

TEST_P(PowerFailureTest, IsToldAndTheCardIsPoweredUpByALaterTry) {
  const PowerFailure& failure = GetParam();
  insert();
  if (failure.answeredBefore) channel_->power(IFD_POWER_UP);
  reader_->answerWith(IOCTL_SMARTCARD_POWER, failure.answer);
  EXPECT_EQ(channel_->power(failure.action).code, failure.code);
  const auto lines = log_->lines();
  EXPECT_EQ(lines.empty() ? "" : lines[0], failure.line);
  if (failure.isReinserted) {
    expectReinsertion();
    // It is still mute and stays in: it has not answered since it came back.
    EXPECT_EQ(channel_->power(IFD_POWER_UP).code, failure.code);
  }
  EXPECT_EQ(channel_->checkPresence(), IFD_SUCCESS);
  reader_->answerWith(IOCTL_SMARTCARD_POWER, succeededWith(kAtr));
  EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
}

INSTANTIATE_TEST_SUITE_P(Answers, PowerFailureTest, testing::ValuesIn(kPowerFailures),
                         [](const auto& each) { return each.param.name; });

// --- Protocol ---

TEST_F(ChannelTest, Protocol_IsChosenByItsMask) {
  insertAndPowerUp();
  for (const DWORD protocol : {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1}) {
    EXPECT_EQ(channel_->setProtocol(protocol), IFD_SUCCESS);
    EXPECT_THAT(reader_->requests(IOCTL_SMARTCARD_SET_PROTOCOL).back().input,
                ElementsAre(protocol, 0, 0, 0));
  }
}

TEST_F(ChannelTest, OtherProtocolsOrNoCard_LeaveTheDriverAlone) {
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_ICC_NOT_PRESENT);
  insertAndPowerUp();
  for (const DWORD protocol : {0, 3, 4, 0x80}) {
    EXPECT_EQ(channel_->setProtocol(protocol), IFD_PROTOCOL_NOT_SUPPORTED) << protocol;
  }
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_SET_PROTOCOL), 0u);
}

// --- Failures of calls that work with the card ---

struct Failure {
  const char* name;
  framework::HRESULT status;
  RESPONSECODE whenChosen;  // a protocol
  RESPONSECODE whenSent;    // a command
};

const Failure kFailures[] = {
    {"NoMedia", status::kNoMedia, IFD_ICC_NOT_PRESENT, IFD_ICC_NOT_PRESENT},
    {"DeviceGone", host::kDeviceGone, IFD_ICC_NOT_PRESENT, IFD_ICC_NOT_PRESENT},
    {"NotSupported", status::kNotSupported, IFD_PROTOCOL_NOT_SUPPORTED, IFD_COMMUNICATION_ERROR},
    {"TimedOut", host::kTimedOut, IFD_RESPONSE_TIMEOUT, IFD_RESPONSE_TIMEOUT},
    {"InvalidState", status::kInvalidState, IFD_COMMUNICATION_ERROR, IFD_COMMUNICATION_ERROR},
    {"GenFailure", kGenFailure, IFD_COMMUNICATION_ERROR, IFD_COMMUNICATION_ERROR},
};

class CallFailureTest : public ChannelTest, public testing::WithParamInterface<Failure> {
 protected:
  void expectCard(RESPONSECODE code) {
    if (code != IFD_ICC_NOT_PRESENT) {
      EXPECT_EQ(channel_->checkPresence(), IFD_SUCCESS);
      return;
    }
    EXPECT_EQ(test::transmit(*channel_, 1, {0x00}, 64).code, IFD_ICC_NOT_PRESENT);
    expectReinsertion();
    EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_SUCCESS);
  }
};

TEST_P(CallFailureTest, IsTold_AndNoCardIsOneThatIsInsertedAgain) {
  insertAndPowerUp();
  reader_->answerWith(IOCTL_SMARTCARD_SET_PROTOCOL, failedWith(GetParam().status));
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T0), GetParam().whenChosen);
  expectCard(GetParam().whenChosen);
  const std::size_t before = reader_->count(IOCTL_SMARTCARD_TRANSMIT);
  reader_->answerWith(IOCTL_SMARTCARD_TRANSMIT, failedWith(GetParam().status));
  EXPECT_EQ(test::transmit(*channel_, 1, {0x00}, 64).code, GetParam().whenSent);
  expectCard(GetParam().whenSent);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), before + 1);
}

INSTANTIATE_TEST_SUITE_P(Statuses, CallFailureTest, testing::ValuesIn(kFailures),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta::pcsc
