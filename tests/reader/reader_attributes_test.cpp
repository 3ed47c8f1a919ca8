#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/reader/scripted_reader.h"
#include "tests/support/log_capture.h"

namespace zelta {
namespace {

using test::error;
using test::FakeReaderDevice;
using test::FakeRequest;
using test::info;
using test::LogCapture;
using test::ScriptedReader;
using testing::ElementsAre;

constexpr std::uint32_t kNoMedia = 0xC0000178;

Bytes text(const std::string& value) {
  Bytes bytes(value.begin(), value.end());
  bytes.push_back(0);
  return bytes;
}

class Attributes : public testing::Test {
 protected:
  // What a get of the tag wrote and logged; checks the lock with each completion.
  struct Answer {
    std::uint32_t status;
    std::size_t information;
    Bytes output;
  };

  Answer get(std::uint32_t tag, std::size_t capacity = 64) {
    log_.clear();
    FakeRequest request(device_);
    request.withInput(tag).withOutput(capacity).checkingLock();
    reader_.IoSmartCardGetAttribute(&request, 4, capacity);
    Answer answer{request.status(), request.information().value_or(9999), request.output()};
    answer.output.resize(request.outputWritten() ? answer.information : 0);
    return answer;
  }

  void expectNumber(std::uint32_t tag, std::uint32_t value, const std::string& logText) {
    const Answer answer = get(tag);
    EXPECT_EQ(answer.status, 0u);
    EXPECT_EQ(answer.information, 4u);
    EXPECT_EQ(
        answer.output,
        (Bytes{static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
               static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)}));
    expectLogged(tag, {info(logText)});
  }

  void expectLogged(std::uint32_t tag, std::vector<test::LogRecord> records) {
    char code[32];
    std::snprintf(code, sizeof code, "[GATT] - code %0X", tag);
    records.insert(records.begin(), info(code));
    EXPECT_EQ(log_.records(), records);
  }

  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{device_, 3};
};

TEST_F(Attributes, VendorNameIsATerminatedText) {
  const Answer answer = get(0x00010100);
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.information, 9u);
  EXPECT_EQ(answer.output, text("Vornhalt"));
  expectLogged(0x00010100, {info("[GATT]SCARD_ATTR_VENDOR_NAME")});
}

TEST_F(Attributes, IfdTypeIsATerminatedText) {
  const Answer answer = get(0x00010101);
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.output, text("Zelta Virtual SmartCard Reader"));
  EXPECT_EQ(answer.information, 31u);
  expectLogged(0x00010101, {info("[GATT]SCARD_ATTR_VENDOR_IFD_TYPE")});
}

TEST_F(Attributes, ConstantsAreLoggedWithTheirValues) {
  expectNumber(0x00020110, 0x00F00000, "[GATT]SCARD_ATTR_CHANNEL_ID: 15728640");
  expectNumber(0x00030120, 3, "[GATT]SCARD_ATTR_PROTOCOL_TYPES: 3");
  expectNumber(0x00030121, 4000, "[GATT]SCARD_ATTR_DEFAULT_CLK: 4000kHz");
  expectNumber(0x00030125, 254, "[GATT]SCARD_ATTR_MAX_IFSD: 254");
  expectNumber(0x00060150, 0, "[GATT]SCARD_ATTR_CHARACTERISTICS");
  expectNumber(0x7FFF0001, 3, "[GATT]SCARD_ATTR_DEVICE_UNIT");
}

TEST_F(Attributes, OfAFreshReaderHaveTheirInitialValues) {
  expectNumber(0x00030122, 5000, "[GATT]SCARD_ATTR_MAX_CLK: 5000kHz");
  expectNumber(0x00030123, 10752, "[GATT]SCARD_ATTR_DEFAULT_DATA_RATE: 10752bps");
  expectNumber(0x00030124, 10752, "[GATT]SCARD_ATTR_MAX_DATA_RATE: 10752bps");
  expectNumber(0x00080207, 0, "[GATT]SCARD_ATTR_CURRENT_IFSC: 0");
  expectNumber(0x0007A009, 0, "[GATT]RPC_TYPE");
}

TEST_F(Attributes, FollowTheCardsAtr) {
  reader_.atr = {0x3B, 0x90, 0x97, 0x80, 0x11, 0x20};  // TA(1), T=0, T=1 with TA(3)
  ASSERT_TRUE(reader_.initializeProtocols());
  expectNumber(0x00030122, 5000, "[GATT]SCARD_ATTR_MAX_CLK: 5000kHz");
  expectNumber(0x00030123, 500000, "[GATT]SCARD_ATTR_DEFAULT_DATA_RATE: 500000bps");
  expectNumber(0x00030124, 625000, "[GATT]SCARD_ATTR_MAX_DATA_RATE: 625000bps");
}

TEST_F(Attributes, FieldSizeFollowsTheCardsAtr) {
  reader_.atr = {0x3B, 0x80, 0x80, 0x11, 0x20};
  ASSERT_TRUE(reader_.initializeProtocols());
  expectNumber(0x00080207, 32, "[GATT]SCARD_ATTR_CURRENT_IFSC: 32");
}

TEST_F(Attributes, ProtocolTypesAreBothThoughTheCardOffersT0Alone) {
  reader_.atr = {0x3B, 0x00};
  ASSERT_TRUE(reader_.initializeProtocols());
  expectNumber(0x00030120, 3, "[GATT]SCARD_ATTR_PROTOCOL_TYPES: 3");
}

TEST_F(Attributes, RpcTypeIsTheField) {
  reader_.rpcType_ = 0x12345678;
  expectNumber(0x0007A009, 0x12345678, "[GATT]RPC_TYPE");
}

TEST_F(Attributes, CurrentProtocolWithoutACardIsRefused) {
  for (const std::uint32_t state : {SCARD_UNKNOWN, SCARD_ABSENT}) {
    reader_.setState(state);
    const Answer answer = get(0x00080201);
    EXPECT_EQ(answer.status, kNoMedia);
    EXPECT_EQ(answer.information, 0u);
    expectLogged(0x00080201,
                 {error(kNoMedia, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: STATUS_NO_MEDIA")});
  }
}

TEST_F(Attributes, CurrentProtocolIsTheFieldAsStored) {
  reader_.atr = {0x3B, 0x80, 0x01};
  ASSERT_TRUE(reader_.initializeProtocols());
  reader_.setState(SCARD_SWALLOWED);
  expectNumber(0x00080201, 1, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: 1 [state:00000003]");
  reader_.setState(SCARD_PRESENT);
  expectNumber(0x00080201, 1, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: 1 [state:00000002]");
}

TEST_F(Attributes, AtrIsAskedForWithoutReset) {
  reader_.atr = {0x3B, 0x80, 0x01, 0x81};
  const Answer answer = get(0x00090303);
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.information, 4u);
  EXPECT_EQ(answer.output, reader_.atr);
  EXPECT_EQ(reader_.resetFlags, std::vector<bool>{false});
  expectLogged(0x00090303, {info("[GATT]SCARD_ATTR_ATR_STRING")});
}

TEST_F(Attributes, AtrThatTheCardDoesNotGiveIsNoMedia) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    reader_.atrResult = result;
    const Answer answer = get(0x00090303);
    EXPECT_EQ(answer.status, kNoMedia);
    EXPECT_EQ(answer.information, 0u);
    expectLogged(0x00090303, {info("[GATT]SCARD_ATTR_ATR_STRING"),
                              error(kNoMedia, "[GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA")});
  }
}

TEST_F(Attributes, TooSmallAnOutputStaysUnwrittenAndSucceeds) {
  const Answer answer = get(0x00030121, 2);
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.information, 4u);
  EXPECT_TRUE(answer.output.empty());
}

TEST_F(Attributes, VendorDefinedTagsAreRefusedWithTheirOwnText) {
  for (const std::uint32_t tag :
       {0x0007A00Au, 0x0007A00Bu, 0x0007A00Cu, 0x0007A00Du, 0x0007A00Eu, 0x0007A010u}) {
    const Answer answer = get(tag);
    EXPECT_EQ(answer.status, 0x80070032u);
    EXPECT_EQ(answer.information, 0u);
    char logText[96];
    std::snprintf(logText, sizeof logText,
                  "[GATT]SCARD_CLASS_VENDOR_DEFINED: ERROR_NOT_SUPPORTED:%08X", tag);
    expectLogged(tag, {error(50, logText)});
  }
}

TEST_F(Attributes, OtherTagsAreRefusedWithTheGenericText) {
  for (const std::uint32_t tag :
       {0x0007A00Fu, 0x0007A011u, 0x0007A008u, 0x00010102u, 0u, 0xFFFFFFFFu}) {
    const Answer answer = get(tag);
    EXPECT_EQ(answer.status, 0x80070032u);
    EXPECT_EQ(answer.information, 0u);
    char logText[64];
    std::snprintf(logText, sizeof logText, "[GATT]ERROR_NOT_SUPPORTED:%08X", tag);
    expectLogged(tag, {error(50, logText)});
  }
}

TEST_F(Attributes, GetWithoutInputMemoryIsAnUnknownTag) {
  FakeRequest request(device_);
  request.withOutput(4);
  reader_.IoSmartCardGetAttribute(&request, 0, 4);
  EXPECT_EQ(request.status(), 0x80070032u);
  EXPECT_THAT(
      log_.records(),
      ElementsAre(error(static_cast<std::uint32_t>(-500), "GetInputMemory failed"),
                  info("[GATT] - code FFFFFFFF"), error(50, "[GATT]ERROR_NOT_SUPPORTED:FFFFFFFF")));
}

class SetAttribute : public testing::Test {
 protected:
  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{device_};
};

TEST_F(SetAttribute, DeviceInUseSucceedsWhateverTheValue) {
  for (const Bytes& value : {Bytes{}, Bytes{1}, Bytes{0, 0, 0, 0}, Bytes(500, 0xFF)}) {
    log_.clear();
    Bytes input{0x02, 0x00, 0xFF, 0x7F};
    for (const std::uint8_t byte : value) input.push_back(byte);
    FakeRequest request(device_);
    request.withInput(input).checkingLock();
    reader_.IoSmartCardSetAttribute(&request, input.size(), 0);
    EXPECT_EQ(request.status(), 0u);
    EXPECT_EQ(request.information(), 0u);
    EXPECT_THAT(log_.records(), ElementsAre(info("[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"),
                                            info("[SATT]SCARD_ATTR_DEVICE_IN_USE")));
  }
}

TEST_F(SetAttribute, AnyOtherTagIsNotSupported) {
  FakeRequest request(device_);
  request.withInput(SCARD_ATTR_DEVICE_UNIT).checkingLock();
  reader_.IoSmartCardSetAttribute(&request, 4, 0);
  EXPECT_EQ(request.status(), 0x80070032u);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_THAT(log_.records(), ElementsAre(info("[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"),
                                          error(50, "[SATT]ERROR_NOT_SUPPORTED:7FFF0001")));
}

TEST_F(SetAttribute, WithoutInputMemoryIsAnInvalidArgument) {
  FakeRequest request(device_);
  request.checkingLock();
  reader_.IoSmartCardSetAttribute(&request, 0, 0);
  EXPECT_EQ(request.status(), 0x80070057u);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_THAT(
      log_.records(),
      ElementsAre(info("[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"),
                  error(87, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE: input too short (0 bytes)")));
}

}  // namespace
}  // namespace zelta
