#include "pcsc/capabilities.h"

#include "contract/attributes.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::kAtr;
using test::kGenFailure;
using test::succeededWith;
using testing::ElementsAre;
using testing::IsEmpty;

RESPONSECODE await(DWORD, int) { return IFD_SUCCESS; }
RESPONSECODE stop(DWORD) { return IFD_SUCCESS; }

class CapabilitiesTest : public test::ChannelTest {
 protected:
  Reply get(DWORD tag) { return capability(*channel_, tag, {await, stop}); }
  void answerAttribute(const host::IoResult& result) {
    reader_->answerWith(IOCTL_SMARTCARD_GET_ATTRIBUTE, result);
  }
  template <typename Function>
  static Function functionIn(const Bytes& bytes) {
    Function function = nullptr;
    EXPECT_EQ(bytes.size(), sizeof function);
    std::memcpy(&function, bytes.data(), sizeof function);
    return function;
  }
};

TEST_F(CapabilitiesTest, TagsOfTheHandler_AreAnsweredWithoutTheDriver) {
  EXPECT_THAT(get(TAG_IFD_SIMULTANEOUS_ACCESS).bytes, ElementsAre(16));
  EXPECT_THAT(get(TAG_IFD_THREAD_SAFE).bytes, ElementsAre(1));
  EXPECT_THAT(get(TAG_IFD_SLOT_THREAD_SAFE).bytes, ElementsAre(1));
  EXPECT_THAT(get(TAG_IFD_SLOTS_NUMBER).bytes, ElementsAre(1));
  EXPECT_THAT(get(TAG_IFD_POLLING_THREAD_KILLABLE).bytes, ElementsAre(0));
  EXPECT_EQ(functionIn<decltype(&await)>(get(TAG_IFD_POLLING_THREAD_WITH_TIMEOUT).bytes), &await);
  EXPECT_EQ(functionIn<decltype(&stop)>(get(TAG_IFD_STOP_POLLING_THREAD).bytes), &stop);
  // Unused or unknown, and the names that pcscd knows itself.
  for (const DWORD tag :
       {DWORD{TAG_IFD_SLOTNUM}, DWORD{TAG_IFD_POLLING_THREAD}, DWORD{TAG_IFD_DEVICE_REMOVED},
        DWORD{0}, DWORD{0xFFFF}, DWORD{0x100000000}, ~DWORD{0},
        DWORD{SCARD_ATTR_DEVICE_FRIENDLY_NAME_A}, DWORD{SCARD_ATTR_DEVICE_FRIENDLY_NAME_W},
        DWORD{SCARD_ATTR_DEVICE_SYSTEM_NAME_A}, DWORD{SCARD_ATTR_DEVICE_SYSTEM_NAME_W}}) {
    EXPECT_EQ(get(tag).code, IFD_ERROR_TAG) << tag;
  }
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

// Every text in the contract's table, and nothing else.
TEST_F(CapabilitiesTest, Texts_LoseTheirTerminatingZeroAndNothingElseDoes) {
  insert();
  const Bytes value{0x3B, 0x01, 0x41, 0x00};  // is an ATR, too
  answerAttribute(succeededWith(value));
  reader_->setServerResults({{loadLittleEndian(value.data())}});
  std::size_t texts = 0;
  for (const Attribute& attribute : kAttributes) {
    const bool isText = attribute.kind == AttributeKind::kText;
    texts += isText ? 1 : 0;
    EXPECT_EQ(get(attribute.tag).bytes, isText ? Bytes({0x3B, 0x01, 0x41}) : value)
        << attribute.name;
  }
  EXPECT_EQ(texts, 4u);
  for (const Bytes& empty : {Bytes{0}, Bytes{}}) {
    answerAttribute(succeededWith(empty));
    EXPECT_EQ(get(SCARD_ATTR_VENDOR_NAME).code, IFD_SUCCESS);
    EXPECT_THAT(get(SCARD_ATTR_VENDOR_NAME).bytes, IsEmpty());
  }
}

TEST_F(CapabilitiesTest, Attribute_IsAskedForByItsTag) {
  answerAttribute(succeededWith({0x00, 0x00, 0xF0, 0x00}));
  EXPECT_THAT(get(SCARD_ATTR_CHANNEL_ID).bytes, ElementsAre(0x00, 0x00, 0xF0, 0x00));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_GET_ATTRIBUTE);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_THAT(requests[0].input, ElementsAre(0x10, 0x01, 0x02, 0x00));
  EXPECT_EQ(requests[0].outputCapacity, static_cast<std::size_t>(MAX_BUFFER_SIZE));
}

TEST_F(CapabilitiesTest, FailuresToReadAnAttribute_AreToldApart) {
  const std::pair<host::IoResult, RESPONSECODE> rows[] = {
      {failedWith(status::kNotSupported), IFD_ERROR_TAG},
      {failedWith(status::kNoMedia), IFD_ICC_NOT_PRESENT},
      {failedWith(host::kTimedOut), IFD_RESPONSE_TIMEOUT},
      {failedWith(kGenFailure), IFD_COMMUNICATION_ERROR},
      {{framework::kOk, MAX_BUFFER_SIZE + 1, {}}, IFD_ERROR_INSUFFICIENT_BUFFER},
  };
  for (const auto& [answer, code] : rows) {
    answerAttribute(answer);
    EXPECT_EQ(get(SCARD_ATTR_CURRENT_PROTOCOL_TYPE).code, code);
  }
}

TEST_F(CapabilitiesTest, AtrOfAPoweredCard_IsKnownWithoutAskingTheDriver) {
  insertAndPowerUp();
  EXPECT_EQ(get(TAG_IFD_ATR).bytes, kAtr);
  EXPECT_EQ(get(SCARD_ATTR_ATR_STRING).bytes, kAtr);
  channel_->power(IFD_POWER_DOWN);
  EXPECT_EQ(get(TAG_IFD_ATR).bytes, kAtr);
  remove();
  EXPECT_EQ(get(TAG_IFD_ATR).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(get(SCARD_ATTR_ATR_STRING).code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(CapabilitiesTest, AtrOfACardThatWasNotPowered_IsTheDriversAndNotTheCardsBefore) {
  insertAndPowerUp();
  remove();
  insert();
  answerAttribute(succeededWith({0x3F, 0x00}));
  EXPECT_THAT(get(TAG_IFD_ATR).bytes, ElementsAre(0x3F, 0x00));
  EXPECT_THAT(reader_->requests(IOCTL_SMARTCARD_GET_ATTRIBUTE)[0].input,
              ElementsAre(0x03, 0x03, 0x09, 0x00));
}

// --- Setting ---

TEST_F(CapabilitiesTest, Setting_SendsTagAndValueIfAny) {
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {1, 2, 3, 4}), IFD_SUCCESS);
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {}), IFD_SUCCESS);
  const auto requests = reader_->requests(IOCTL_SMARTCARD_SET_ATTRIBUTE);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_THAT(requests[0].input, ElementsAre(0x02, 0x00, 0xFF, 0x7F, 1, 2, 3, 4));
  EXPECT_THAT(requests[1].input, ElementsAre(0x02, 0x00, 0xFF, 0x7F));
}

TEST_F(CapabilitiesTest, FailuresToSetAnAttribute_AreToldApart) {
  EXPECT_EQ(channel_->setAttribute(TAG_IFD_DEVICE_REMOVED, {1}), IFD_ERROR_TAG);
  EXPECT_EQ(channel_->setAttribute(~DWORD{0}, {1}), IFD_ERROR_TAG);
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, Bytes(MAX_BUFFER_SIZE + 1)),
            IFD_ERROR_SET_FAILURE);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_SET_ATTRIBUTE), 0u);
  reader_->answerWith(IOCTL_SMARTCARD_SET_ATTRIBUTE, failedWith(status::kNotSupported));
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_VENDOR_NAME, {1}), IFD_ERROR_TAG);
  reader_->answerWith(IOCTL_SMARTCARD_SET_ATTRIBUTE, failedWith(kGenFailure));
  EXPECT_EQ(channel_->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {1}), IFD_ERROR_SET_FAILURE);
}

}  // namespace
}  // namespace zelta::pcsc
