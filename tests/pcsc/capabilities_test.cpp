#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/status.h"
#include "pcsc/capabilities.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::succeededWith;
using testing::ElementsAre;
using testing::IsEmpty;

RESPONSECODE await(DWORD, int) { return IFD_SUCCESS; }
RESPONSECODE stop(DWORD) { return IFD_SUCCESS; }

class AttributesTest : public test::ChannelTest {
 protected:
  Reply get(DWORD tag) { return capability(*channel_, tag, {await, stop}); }
  void answerAttribute(host::IoResult result) {
    reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE, [result](const auto&) { return result; });
  }
  static Bytes text(const std::string& value) { return Bytes(value.begin(), value.end()); }
};

TEST_F(AttributesTest, HandlerDescribesItself) {
  EXPECT_THAT(get(TAG_IFD_SIMULTANEOUS_ACCESS).bytes, ElementsAre(16));
  EXPECT_THAT(get(TAG_IFD_THREAD_SAFE).bytes, ElementsAre(1));
  EXPECT_THAT(get(TAG_IFD_SLOT_THREAD_SAFE).bytes, ElementsAre(1));
  EXPECT_THAT(get(TAG_IFD_SLOTS_NUMBER).bytes, ElementsAre(1));
  EXPECT_THAT(get(TAG_IFD_POLLING_THREAD_KILLABLE).bytes, ElementsAre(0));
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(AttributesTest, PollingFunctionsAreGivenAsAddresses) {
  RESPONSECODE (*awaitGiven)(DWORD, int) = nullptr;
  RESPONSECODE (*stopGiven)(DWORD) = nullptr;
  const Bytes awaitBytes = get(TAG_IFD_POLLING_THREAD_WITH_TIMEOUT).bytes;
  const Bytes stopBytes = get(TAG_IFD_STOP_POLLING_THREAD).bytes;
  ASSERT_EQ(awaitBytes.size(), sizeof awaitGiven);
  ASSERT_EQ(stopBytes.size(), sizeof stopGiven);
  std::memcpy(&awaitGiven, awaitBytes.data(), sizeof awaitGiven);
  std::memcpy(&stopGiven, stopBytes.data(), sizeof stopGiven);
  EXPECT_EQ(awaitGiven, &await);
  EXPECT_EQ(stopGiven, &stop);
}

TEST_F(AttributesTest, UnusedAndUnknownTagsAreRefusedWithoutTheDriver) {
  for (const DWORD tag :
       {DWORD{TAG_IFD_SLOTNUM}, DWORD{TAG_IFD_POLLING_THREAD}, DWORD{TAG_IFD_DEVICE_REMOVED},
        DWORD{0}, DWORD{0xFFFF}, DWORD{0x100000000}, ~DWORD{0}}) {
    EXPECT_EQ(get(tag).code, IFD_ERROR_TAG) << tag;
  }
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(AttributesTest, NamesThatPcscdKnowsItselfAreLeftToIt) {
  for (const DWORD tag : {SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, SCARD_ATTR_DEVICE_FRIENDLY_NAME_W,
                          SCARD_ATTR_DEVICE_SYSTEM_NAME_A, SCARD_ATTR_DEVICE_SYSTEM_NAME_W}) {
    EXPECT_EQ(get(tag).code, IFD_ERROR_TAG) << tag;
  }
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(AttributesTest, TextsLoseTheirTerminatingZero) {
  std::string value = "Vornhalt";
  value.push_back('\0');
  answerAttribute(succeededWith(text(value)));
  for (const DWORD tag : {DWORD{SCARD_ATTR_VENDOR_NAME}, DWORD{SCARD_ATTR_VENDOR_IFD_TYPE},
                          DWORD{PIPE_NAME}, DWORD{EVENT_PIPE_NAME}}) {
    EXPECT_EQ(get(tag).bytes, text("Vornhalt")) << tag;
  }
}

TEST_F(AttributesTest, EmptyTextsAreEmpty) {
  answerAttribute(succeededWith({0}));
  EXPECT_EQ(get(SCARD_ATTR_VENDOR_NAME).code, IFD_SUCCESS);
  EXPECT_THAT(get(SCARD_ATTR_VENDOR_NAME).bytes, IsEmpty());
  answerAttribute(succeededWith({}));
  EXPECT_THAT(get(SCARD_ATTR_VENDOR_NAME).bytes, IsEmpty());
}

TEST_F(AttributesTest, NumbersAreFourBytesAlsoWithZeroesAtTheirEnd) {
  answerAttribute(succeededWith({0x00, 0x00, 0xF0, 0x00}));
  EXPECT_THAT(get(SCARD_ATTR_CHANNEL_ID).bytes, ElementsAre(0x00, 0x00, 0xF0, 0x00));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_GET_ATTRIBUTE);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_THAT(requests[0].input, ElementsAre(0x10, 0x01, 0x02, 0x00));
  EXPECT_EQ(requests[0].outputCapacity, static_cast<std::size_t>(MAX_BUFFER_SIZE));
}

TEST_F(AttributesTest, AttributeThatTheDriverRefusesIsAnUnknownTag) {
  answerAttribute(failedWith(status::kNotSupported));
  EXPECT_EQ(get(SCARD_ATTR_VENDOR_IFD_VERSION).code, IFD_ERROR_TAG);
}

TEST_F(AttributesTest, OtherFailuresAreToldApart) {
  answerAttribute(failedWith(status::kNoMedia));
  EXPECT_EQ(get(SCARD_ATTR_CURRENT_PROTOCOL_TYPE).code, IFD_ICC_NOT_PRESENT);
  answerAttribute(failedWith(host::kTimedOut));
  EXPECT_EQ(get(SCARD_ATTR_MAX_CLK).code, IFD_RESPONSE_TIMEOUT);
  answerAttribute(failedWith(kGenFailure));
  EXPECT_EQ(get(SCARD_ATTR_MAX_CLK).code, IFD_COMMUNICATION_ERROR);
}

TEST_F(AttributesTest, AttributeTooLongForAnyClientIsInsufficientBuffer) {
  answerAttribute({framework::kOk, MAX_BUFFER_SIZE + 1, {}});
  EXPECT_EQ(get(PIPE_NAME).code, IFD_ERROR_INSUFFICIENT_BUFFER);
}

// --- The answer to reset ---

TEST_F(AttributesTest, AtrOfAPoweredCardIsKnownWithoutAskingTheDriver) {
  insertAndPowerUp();
  EXPECT_EQ(get(TAG_IFD_ATR).bytes, kAtr);
  EXPECT_EQ(get(SCARD_ATTR_ATR_STRING).bytes, kAtr);
  channel_->power(IFD_POWER_DOWN);
  EXPECT_EQ(get(TAG_IFD_ATR).bytes, kAtr);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(AttributesTest, AtrOfACardThatWasNotPoweredIsTheDrivers) {
  insert();
  answerAttribute(succeededWith(kAtr));
  EXPECT_EQ(get(TAG_IFD_ATR).bytes, kAtr);
  EXPECT_THAT(reader_->requests(IOCTL_SMARTCARD_GET_ATTRIBUTE)[0].input,
              ElementsAre(0x03, 0x03, 0x09, 0x00));
}

TEST_F(AttributesTest, NoAtrWithoutACard) {
  EXPECT_EQ(get(TAG_IFD_ATR).code, IFD_ICC_NOT_PRESENT);
  insertAndPowerUp();
  remove();
  EXPECT_EQ(get(TAG_IFD_ATR).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(get(SCARD_ATTR_ATR_STRING).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(AttributesTest, AtrOfTheCardBeforeIsForgotten) {
  insertAndPowerUp();
  remove();
  insert();
  answerAttribute(succeededWith({0x3F, 0x00}));
  EXPECT_THAT(get(TAG_IFD_ATR).bytes, ElementsAre(0x3F, 0x00));
}

// --- Setting ---

TEST_F(AttributesTest, SettingSendsTagAndValue) {
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {1, 2, 3, 4}), IFD_SUCCESS);
  const auto requests = reader_->requests(IOCTL_SMARTCARD_SET_ATTRIBUTE);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_THAT(requests[0].input, ElementsAre(0x02, 0x00, 0xFF, 0x7F, 1, 2, 3, 4));
}

TEST_F(AttributesTest, SettingMayHaveNoValue) {
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {}), IFD_SUCCESS);
  EXPECT_EQ(reader_->requests(IOCTL_SMARTCARD_SET_ATTRIBUTE)[0].input.size(), 4u);
}

TEST_F(AttributesTest, SettingWhatTheDriverRefusesIsAnUnknownTag) {
  reader_->answer(IOCTL_SMARTCARD_SET_ATTRIBUTE,
                  [](const auto&) { return failedWith(status::kNotSupported); });
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_VENDOR_NAME, {1}), IFD_ERROR_TAG);
}

TEST_F(AttributesTest, SettingThatFailsOtherwiseIsASetFailure) {
  reader_->answer(IOCTL_SMARTCARD_SET_ATTRIBUTE,
                  [](const auto&) { return failedWith(kGenFailure); });
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {1}), IFD_ERROR_SET_FAILURE);
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, Bytes(MAX_BUFFER_SIZE + 1)),
            IFD_ERROR_SET_FAILURE);
}

TEST_F(AttributesTest, SettingHandlerTagsIsRefusedWithoutTheDriver) {
  EXPECT_EQ(channel_->setAttribute(TAG_IFD_DEVICE_REMOVED, {1}), IFD_ERROR_TAG);
  EXPECT_EQ(channel_->setAttribute(~DWORD{0}, {1}), IFD_ERROR_TAG);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_SET_ATTRIBUTE), 0u);
}

}  // namespace
}  // namespace zelta::pcsc
