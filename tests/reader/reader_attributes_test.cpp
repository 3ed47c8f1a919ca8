#include <iomanip>
#include <set>
#include <sstream>

#include "contract/attributes.h"
#include "tests/reader/reader_fixture.h"
#include "tests/support/case_names.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;

Bytes text(const std::string& value) {
  Bytes bytes(value.begin(), value.end());
  bytes.push_back(0);
  return bytes;
}

std::string hex(std::uint32_t value, int width = 8) {
  std::ostringstream text;
  text << std::hex << std::uppercase << std::setfill('0') << std::setw(width) << value;
  return text.str();
}

class Attributes : public ReaderFixture {
 protected:
  Answer get(std::uint32_t tag, std::size_t capacity = 64) {
    return ask(&Reader::IoSmartCardGetAttribute, number(tag), capacity);
  }

  // The records of a get, without the first, which is always the same.
  Records logged(std::uint32_t tag) const {
    Records records = log_.records();
    EXPECT_FALSE(records.empty());
    EXPECT_EQ(records.front(), info("[GATT] - code " + hex(tag, 1)));
    records.erase(records.begin());
    return records;
  }

  void expectNumber(std::uint32_t tag, std::uint32_t value, const std::string& logText) {
    EXPECT_EQ(get(tag), answered(number(value)));
    EXPECT_EQ(logged(tag), Records{info(logText)});
  }
};

struct NumberRow {
  std::uint32_t tag, value;
  const char* logText;
};

class FreshReaderAttribute : public Attributes, public testing::WithParamInterface<NumberRow> {};

TEST_P(FreshReaderAttribute, IsAnsweredAndLogged) {
  expectNumber(GetParam().tag, GetParam().value, GetParam().logText);
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, FreshReaderAttribute,
    testing::Values(NumberRow{0x00020110, 0x00F00000, "[GATT]SCARD_ATTR_CHANNEL_ID: 15728640"},
                    NumberRow{0x00030120, 3, "[GATT]SCARD_ATTR_PROTOCOL_TYPES: 3"},
                    NumberRow{0x00030121, 4000, "[GATT]SCARD_ATTR_DEFAULT_CLK: 4000kHz"},
                    NumberRow{0x00030122, 5000, "[GATT]SCARD_ATTR_MAX_CLK: 5000kHz"},
                    NumberRow{0x00030123, 10752, "[GATT]SCARD_ATTR_DEFAULT_DATA_RATE: 10752bps"},
                    NumberRow{0x00030124, 10752, "[GATT]SCARD_ATTR_MAX_DATA_RATE: 10752bps"},
                    NumberRow{0x00030125, 254, "[GATT]SCARD_ATTR_MAX_IFSD: 254"},
                    NumberRow{0x00060150, 0, "[GATT]SCARD_ATTR_CHARACTERISTICS"},
                    NumberRow{0x0007A009, 0, "[GATT]RPC_TYPE"},
                    NumberRow{0x00080207, 0, "[GATT]SCARD_ATTR_CURRENT_IFSC: 0"},
                    NumberRow{0x7FFF0001, 3, "[GATT]SCARD_ATTR_DEVICE_UNIT"}),
    [](const auto& each) { return caseName(each.param.logText); });

TEST_F(Attributes, NamesAreTerminatedTexts) {
  EXPECT_EQ(get(0x00010100), answered(text("Vornhalt")));
  EXPECT_EQ(logged(0x00010100), Records{info("[GATT]SCARD_ATTR_VENDOR_NAME")});
  EXPECT_EQ(get(0x00010101), answered(text("Zelta Virtual SmartCard Reader")));
  EXPECT_EQ(logged(0x00010101), Records{info("[GATT]SCARD_ATTR_VENDOR_IFD_TYPE")});
}

// Otherwise an attribute in the contract's table that is missing in the reader's would go
// unnoticed.
TEST_F(Attributes, EveryAttributeOfTheContract_IsAnsweredByTheReaderOrTheVendorsOperation) {
  reader_.setState(SCARD_SPECIFIC);
  const std::set<std::uint32_t> vendorDefined{PIPE_NAME, EVENT_PIPE_NAME, SERVER_RESULT};
  for (const Attribute& attribute : kAttributes) {
    const bool refusal = get(attribute.tag).status == kNotSupported;
    EXPECT_EQ(refusal, vendorDefined.count(attribute.tag) != 0) << attribute.name;
  }
}

TEST_F(Attributes, AfterAnInsertion_FollowTheCardsAtr) {
  insert({0x3B, 0x90, 0x97, 0x80, 0x11, 0x20});  // TA(1), T=0, T=1 with TA(3)
  expectNumber(0x00030122, 5000, "[GATT]SCARD_ATTR_MAX_CLK: 5000kHz");
  expectNumber(0x00030123, 500000, "[GATT]SCARD_ATTR_DEFAULT_DATA_RATE: 500000bps");
  expectNumber(0x00030124, 625000, "[GATT]SCARD_ATTR_MAX_DATA_RATE: 625000bps");
  expectNumber(0x00080207, 32, "[GATT]SCARD_ATTR_CURRENT_IFSC: 32");
}

TEST_F(Attributes, ProtocolTypesOfAT0Card_AreBoth) {
  insert({0x3B, 0x00});
  expectNumber(0x00030120, 3, "[GATT]SCARD_ATTR_PROTOCOL_TYPES: 3");
}

TEST_F(Attributes, RpcTypeIsTheField) {
  reader_.rpcType_ = 0x12345678;
  expectNumber(0x0007A009, 0x12345678, "[GATT]RPC_TYPE");
}

TEST_F(Attributes, CurrentProtocolWithoutACard_IsRefused) {
  for (const std::uint32_t state : {SCARD_UNKNOWN, SCARD_ABSENT}) {
    reader_.setState(state);
    EXPECT_EQ(get(0x00080201), refused(kNoMedia));
    EXPECT_EQ(logged(0x00080201),
              Records{error(kNoMedia, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: STATUS_NO_MEDIA")});
  }
}

TEST_F(Attributes, CurrentProtocolIsTheFieldAsStored) {
  insert({0x3B, 0x80, 0x01});
  expectNumber(0x00080201, 1, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: 1 [state:00000003]");
  reader_.setState(SCARD_PRESENT);
  expectNumber(0x00080201, 1, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: 1 [state:00000002]");
}

TEST_F(Attributes, AtrIsAskedForWithoutReset) {
  reader_.atr = {0x3B, 0x80, 0x01, 0x81};
  EXPECT_EQ(get(0x00090303), answered(reader_.atr));
  EXPECT_EQ(reader_.resetFlags, std::vector<bool>{false});
  EXPECT_EQ(logged(0x00090303), Records{info("[GATT]SCARD_ATTR_ATR_STRING")});
}

TEST_F(Attributes, AtrThatTheCardDoesNotGive_IsNoMedia) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    reader_.atrResult = result;
    EXPECT_EQ(get(0x00090303), refused(kNoMedia));
    EXPECT_EQ(logged(0x00090303),
              (Records{info("[GATT]SCARD_ATTR_ATR_STRING"),
                       error(kNoMedia, "[GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA")}));
  }
}

TEST_F(Attributes, VendorDefinedTags_AreRefusedWithTheirOwnText) {
  for (const std::uint32_t tag :
       {0x0007A00Au, 0x0007A00Bu, 0x0007A00Cu, 0x0007A00Du, 0x0007A00Eu, 0x0007A010u}) {
    EXPECT_EQ(get(tag), refused(kNotSupported));
    EXPECT_EQ(
        logged(tag),
        Records{error(50, "[GATT]SCARD_CLASS_VENDOR_DEFINED: ERROR_NOT_SUPPORTED:" + hex(tag))});
  }
}

TEST_F(Attributes, OtherTags_AreRefusedWithTheGenericText) {
  for (const std::uint32_t tag :
       {0x0007A00Fu, 0x0007A011u, 0x0007A008u, 0x00010102u, 0u, 0xFFFFFFFFu}) {
    EXPECT_EQ(get(tag), refused(kNotSupported));
    EXPECT_EQ(logged(tag), Records{error(50, "[GATT]ERROR_NOT_SUPPORTED:" + hex(tag))});
  }
}

TEST_F(Attributes, GetWithoutInputMemory_IsAnUnknownTag) {
  EXPECT_EQ(ask(&Reader::IoSmartCardGetAttribute, std::nullopt), refused(kNotSupported));
  EXPECT_THAT(log_.records(),
              ElementsAre(error(kNoError, "GetInputMemory failed"), info("[GATT] - code FFFFFFFF"),
                          error(50, "[GATT]ERROR_NOT_SUPPORTED:FFFFFFFF")));
}

class SetAttribute : public ReaderFixture {
 protected:
  Answer set(const std::optional<Bytes>& input) {
    return ask(&Reader::IoSmartCardSetAttribute, input);
  }
  const LogRecord begin_ = info("[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE");
};

TEST_F(SetAttribute, DeviceInUseSucceedsWhateverTheValue) {
  for (const Bytes& value : {Bytes{}, Bytes{1}, Bytes{0, 0, 0, 0}, Bytes(500, 0xFF)}) {
    EXPECT_EQ(set(number(0x7FFF0002, value)), answered({}));
    EXPECT_THAT(log_.records(), ElementsAre(begin_, info("[SATT]SCARD_ATTR_DEVICE_IN_USE")));
  }
}

TEST_F(SetAttribute, AnyOtherTagIsNotSupported) {
  EXPECT_EQ(set(number(SCARD_ATTR_DEVICE_UNIT)), refused(kNotSupported));
  EXPECT_THAT(log_.records(), ElementsAre(begin_, error(50, "[SATT]ERROR_NOT_SUPPORTED:7FFF0001")));
}

TEST_F(SetAttribute, WithoutInputMemoryIsAnInvalidArgument) {
  EXPECT_EQ(set(std::nullopt), refused(0x80070057));
  EXPECT_THAT(
      log_.records(),
      ElementsAre(begin_,
                  error(87, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE: input too short (0 bytes)")));
}

}  // namespace
}  // namespace zelta::test
