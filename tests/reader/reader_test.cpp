// Construction, state and the requests that are none.
#include "reader/reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

class DevicelessReader final : public Reader {
 public:
  DevicelessReader() : Reader(0, nullptr) {}
  QueryResult QueryTransmit(const Bytes&, Bytes&) override { return QueryResult::kFailure; }
  QueryResult QueryAtr(Bytes&, bool) override { return QueryResult::kFailure; }
  QueryResult CheckATR() override { return QueryResult::kFailure; }
  bool NotifyCardReady() override { return false; }
  void shutdown() override {}
  std::uint32_t serverThread() override { return 0; }
  void endExchanges() noexcept override {}
};

TEST(ReaderConstruction, WithoutDeviceThrows) {
  try {
    const DevicelessReader reader;
    FAIL() << "a reader without a device";
  } catch (const std::invalid_argument& failure) {
    EXPECT_STREQ(failure.what(), "Cannot create reader. Device is invalid.");
  }
}

TEST(ReaderConstruction, SetsNamesAndInitialState) {
  FakeReaderDevice device;
  ScriptedReader reader(device, 7);
  EXPECT_EQ(reader.vendorName(), "Vornhalt");
  EXPECT_EQ(reader.ifdType(), "Zelta Virtual SmartCard Reader");
  EXPECT_EQ(reader.unitNumber(), 7u);
  EXPECT_EQ(reader.state(), 1u);
  EXPECT_EQ(reader.currentProtocol(), 0u);
  EXPECT_EQ(reader.cardReady(), 0u);
  EXPECT_FALSE(reader.waiting().any(CardEvent::kInserted));
  EXPECT_FALSE(reader.waiting().any(CardEvent::kRemoved));
}

TEST(GetState, OfANewReaderIsAbsentAndLogged) {
  LogCapture log;
  FakeReaderDevice device;
  ScriptedReader reader(device);
  FakeRequest request(device);
  request.withOutput(4).checkingLock();
  reader.IoSmartCardGetState(&request, 0, 4);
  EXPECT_EQ(request.status(), 0u);
  EXPECT_EQ(request.information(), 4u);
  EXPECT_EQ(request.output(), (Bytes{1, 0, 0, 0}));
  EXPECT_THAT(log.records(),
              ElementsAre(info("[GSTA]IOCTL_SMARTCARD_GET_STATE"), info("STATE:00000001")));
}

TEST(GetState, FollowsTheState) {
  FakeReaderDevice device;
  ScriptedReader reader(device);
  for (const std::uint32_t state : {0u, 2u, 3u, 5u, 6u}) {
    reader.setState(state);
    FakeRequest request(device);
    request.withOutput(4);
    reader.IoSmartCardGetState(&request, 0, 4);
    EXPECT_EQ(request.output(), (Bytes{static_cast<std::uint8_t>(state), 0, 0, 0}));
  }
}

// A handler that is still running may write one that it has found before.
TEST(GetState, IsAbsentForGoodWhateverIsWrittenOnceTheReaderLeaves) {
  FakeReaderDevice device;
  ScriptedReader reader(device);
  reader.setState(SCARD_SPECIFIC);
  reader.markAbsentForGood();
  EXPECT_EQ(reader.state(), SCARD_ABSENT);
  reader.setState(SCARD_SPECIFIC);
  EXPECT_EQ(reader.state(), SCARD_ABSENT);
}

TEST(GetState, WithoutOutputIsAGeneralFailure) {
  LogCapture log;
  FakeReaderDevice device;
  ScriptedReader reader(device);
  FakeRequest request(device);
  reader.IoSmartCardGetState(&request, 0, 0);
  EXPECT_EQ(request.status(), 0x8007001Fu);
  EXPECT_THAT(log.errors(), ElementsAre(error(31, "GetOutputMemory failed")));
}

using ReaderHandler = void (Reader::*)(IoRequest*, std::size_t, std::size_t);

struct NullRow {
  ReaderHandler handler;
  const char* text;
};

class NullRequest : public testing::TestWithParam<NullRow> {};

TEST_P(NullRequest, IsLoggedAndNothingElse) {
  LogCapture log;
  FakeReaderDevice device;
  ScriptedReader reader(device);
  reader.setState(SCARD_SWALLOWED);
  (reader.*GetParam().handler)(nullptr, 0, 0);
  const auto noCode = static_cast<std::uint32_t>(-500);
  EXPECT_THAT(log.records(), ElementsAre(error(noCode, GetParam().text)));
  EXPECT_EQ(reader.checks, 0);
  EXPECT_TRUE(reader.resetFlags.empty());
  EXPECT_TRUE(reader.commands.empty());
  EXPECT_EQ(reader.state(), SCARD_SWALLOWED);
}

INSTANTIATE_TEST_SUITE_P(
    Handlers, NullRequest,
    testing::Values(
        NullRow{&Reader::IoSmartCardGetState, "[GSTA]IOCTL_SMARTCARD_GET_STATE: invalid request"},
        NullRow{&Reader::IoSmartCardIsPresent, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid request"},
        NullRow{&Reader::IoSmartCardIsAbsent, "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid request"},
        NullRow{&Reader::IoSmartCardPower, "[POWR]IOCTL_SMARTCARD_POWER: invalid request"},
        NullRow{&Reader::IoSmartCardSetProtocol,
                "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL: invalid request"},
        NullRow{&Reader::IoSmartCardTransmit, "[TRSM]IOCTL_SMARTCARD_TRANSMIT: invalid request"},
        NullRow{&Reader::IoSmartCardGetAttribute, "[GATT]: invalid request"},
        NullRow{&Reader::IoSmartCardSetAttribute,
                "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE: invalid request"}));

TEST(NullCancel, IsLoggedAndNothingElse) {
  LogCapture log;
  FakeReaderDevice device;
  ScriptedReader reader(device);
  reader.IoCancelRequest(nullptr);
  EXPECT_THAT(log.records(),
              ElementsAre(error(static_cast<std::uint32_t>(-500), "[CREQ]Invalid request")));
}

struct ShortRow {
  ReaderHandler handler;
  const char* text;
};

class ShortInput : public testing::TestWithParam<ShortRow> {};

TEST_P(ShortInput, IsRefusedAsInvalidArgument) {
  for (std::size_t size = 0; size < 4; ++size) {
    LogCapture log;
    FakeReaderDevice device;
    ScriptedReader reader(device);
    FakeRequest request(device);
    request.withInput(Bytes(size, 0x01)).withOutput(32).checkingLock();
    (reader.*GetParam().handler)(&request, size, 32);
    EXPECT_EQ(request.status(), 0x80070057u);
    EXPECT_EQ(request.information(), 0u);
    EXPECT_FALSE(request.outputWritten());
    const std::string text =
        GetParam().text + (": input too short (" + std::to_string(size)) + " bytes)";
    EXPECT_THAT(log.errors(), ElementsAre(error(87, text)));
    EXPECT_TRUE(reader.resetFlags.empty());
    EXPECT_EQ(reader.state(), SCARD_ABSENT);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Handlers, ShortInput,
    testing::Values(
        ShortRow{&Reader::IoSmartCardPower, "[POWR]IOCTL_SMARTCARD_POWER"},
        ShortRow{&Reader::IoSmartCardSetProtocol, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL"},
        ShortRow{&Reader::IoSmartCardGetAttribute, "[GATT]IOCTL_SMARTCARD_GET_ATTRIBUTE"},
        ShortRow{&Reader::IoSmartCardSetAttribute, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"}));

}  // namespace
}  // namespace zelta
