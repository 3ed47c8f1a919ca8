// Construction, state and the requests that no handler can serve.
#include "reader/reader.h"

#include "tests/reader/reader_fixture.h"
#include "tests/support/case_names.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;

TEST(ReaderConstruction, WithoutDevice_Throws) {
  try {
    const ScriptedReader reader(0, nullptr);
    FAIL() << "a reader without a device";
  } catch (const std::invalid_argument& failure) {
    EXPECT_STREQ(failure.what(), "Cannot create reader. Device is invalid.");
  }
}

class ReaderTest : public ReaderFixture {};

TEST_F(ReaderTest, NewReader_HasItsNamesAndInitialValues) {
  EXPECT_EQ(reader_.vendorName(), "Vornhalt");
  EXPECT_EQ(reader_.ifdType(), "Zelta Virtual SmartCard Reader");
  EXPECT_EQ(reader_.unitNumber(), 3u);
  EXPECT_EQ(reader_.currentProtocol(), 0u);
  EXPECT_EQ(reader_.cardReady(), 0u);
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
  EXPECT_EQ(ask(&Reader::IoSmartCardGetState, std::nullopt), answered(number(1)));
  EXPECT_THAT(log_.records(),
              ElementsAre(info("[GSTA]IOCTL_SMARTCARD_GET_STATE"), info("STATE:00000001")));
}

TEST_F(ReaderTest, GetStateFollowsTheState) {
  for (const std::uint32_t state : {0u, 2u, 3u, 5u, 6u}) {
    reader_.setState(state);
    EXPECT_EQ(ask(&Reader::IoSmartCardGetState, std::nullopt), answered(number(state)));
  }
}

TEST_F(ReaderTest, GetStateWithoutOutput_IsAGeneralFailure) {
  FakeRequest request(device_);
  run(&Reader::IoSmartCardGetState, request);
  EXPECT_EQ(request.status(), 0x8007001Fu);
  EXPECT_THAT(log_.errors(), ElementsAre(error(31, "GetOutputMemory failed")));
}

// A handler that is still running may write an outdated state.
TEST_F(ReaderTest, MarkedAbsentForGood_StaysAbsentWhateverIsWritten) {
  reader_.setState(SCARD_SPECIFIC);
  reader_.markAbsentForGood();
  EXPECT_EQ(reader_.state(), SCARD_ABSENT);
  reader_.setState(SCARD_SPECIFIC);
  EXPECT_EQ(reader_.state(), SCARD_ABSENT);
}

struct HandlerRow {
  void (Reader::*handler)(IoRequest*, std::size_t, std::size_t);
  const char* text;
};

class NullRequest : public ReaderFixture, public testing::WithParamInterface<HandlerRow> {};

TEST_P(NullRequest, IsLoggedAndNothingElse) {
  reader_.setState(SCARD_SWALLOWED);
  (reader_.*GetParam().handler)(nullptr, 0, 0);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoError, GetParam().text)));
  EXPECT_EQ(reader_.checks, 0);
  EXPECT_TRUE(reader_.resetFlags.empty());
  EXPECT_TRUE(reader_.commands.empty());
  EXPECT_EQ(reader_.state(), SCARD_SWALLOWED);
}

using Row = HandlerRow;
INSTANTIATE_TEST_SUITE_P(
    Handlers, NullRequest,
    testing::Values(
        Row{&Reader::IoSmartCardGetState, "[GSTA]IOCTL_SMARTCARD_GET_STATE: invalid request"},
        Row{&Reader::IoSmartCardIsPresent, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid request"},
        Row{&Reader::IoSmartCardIsAbsent, "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid request"},
        Row{&Reader::IoSmartCardPower, "[POWR]IOCTL_SMARTCARD_POWER: invalid request"},
        Row{&Reader::IoSmartCardSetProtocol, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL: invalid request"},
        Row{&Reader::IoSmartCardTransmit, "[TRSM]IOCTL_SMARTCARD_TRANSMIT: invalid request"},
        Row{&Reader::IoSmartCardGetAttribute, "[GATT]: invalid request"},
        Row{&Reader::IoSmartCardSetAttribute,
            "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE: invalid request"}),
    [](const auto& each) { return caseName(each.param.text); });

TEST_F(ReaderTest, CancelOfANullRequest_IsLoggedAndNothingElse) {
  reader_.IoCancelRequest(nullptr);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoError, "[CREQ]Invalid request")));
}

class ShortInput : public ReaderFixture, public testing::WithParamInterface<HandlerRow> {};

TEST_P(ShortInput, IsRefusedAsInvalidArgument) {
  for (std::size_t size = 0; size < 4; ++size) {
    EXPECT_EQ(ask(GetParam().handler, Bytes(size, 0x01)), refused(0x80070057));
    const std::string text =
        GetParam().text + (": input too short (" + std::to_string(size)) + " bytes)";
    EXPECT_THAT(log_.errors(), ElementsAre(error(87, text)));
    EXPECT_TRUE(reader_.resetFlags.empty());
    EXPECT_EQ(reader_.state(), SCARD_ABSENT);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Handlers, ShortInput,
    testing::Values(Row{&Reader::IoSmartCardPower, "[POWR]IOCTL_SMARTCARD_POWER"},
                    Row{&Reader::IoSmartCardSetProtocol, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL"},
                    Row{&Reader::IoSmartCardGetAttribute, "[GATT]IOCTL_SMARTCARD_GET_ATTRIBUTE"},
                    Row{&Reader::IoSmartCardSetAttribute, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"}),
    [](const auto& each) { return caseName(each.param.text); });

}  // namespace
}  // namespace zelta::test
