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
using testing::IsEmpty;

constexpr auto kNoCode = static_cast<std::uint32_t>(-500);

class Power : public testing::Test {
 protected:
  // The status; the rest is checked by the caller.
  std::uint32_t power(std::int32_t operation) {
    log_.clear();
    FakeRequest request(device_);
    request.withInput(static_cast<std::uint32_t>(operation)).withOutput(64).checkingLock();
    reader_.IoSmartCardPower(&request, 4, 64);
    information_ = request.information();
    output_ = request.output();
    output_.resize(request.outputWritten() ? information_.value_or(0) : 0);
    return request.status();
  }

  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{device_};
  std::optional<std::size_t> information_;
  Bytes output_;
};

TEST_F(Power, DownSwallowsTheCardAndClearsProtocolAndReadiness) {
  reader_.atr = {0x3B, 0x80, 0x01};
  ASSERT_TRUE(reader_.initializeProtocols());
  reader_.setCardReady(1);
  reader_.setState(SCARD_SPECIFIC);
  EXPECT_EQ(power(0), 0u);
  EXPECT_EQ(information_, 0u);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_EQ(reader_.state(), 3u);
  EXPECT_EQ(reader_.currentProtocol(), 0u);
  EXPECT_EQ(reader_.cardReady(), 0u);
  EXPECT_THAT(log_.records(),
              ElementsAre(info("[POWR]IOCTL_SMARTCARD_POWER"), info("[POWR]SCARD_POWER_DOWN")));
}

TEST_F(Power, ResetsGiveTheAtrAndMakeTheReaderNegotiable) {
  reader_.atr = {0x3B, 0x95, 0x13, 0x81, 0x01};
  for (const auto& [operation, name] :
       {std::pair{1, "SCARD_COLD_RESET"}, {2, "SCARD_WARM_RESET"}}) {
    ASSERT_TRUE(reader_.initializeProtocols());  // leaves a protocol
    reader_.resetFlags.clear();
    reader_.setState(SCARD_SWALLOWED);
    reader_.setCardReady(0);
    EXPECT_EQ(power(operation), 0u);
    EXPECT_EQ(information_, 5u);
    EXPECT_EQ(output_, reader_.atr);
    EXPECT_EQ(reader_.state(), 5u);
    EXPECT_EQ(reader_.cardReady(), 1u);
    EXPECT_EQ(reader_.currentProtocol(), 0u);
    EXPECT_EQ(reader_.resetFlags, std::vector<bool>{true});
    EXPECT_THAT(log_.records(),
                ElementsAre(info("[POWR]IOCTL_SMARTCARD_POWER"), info(std::string("[POWR]") + name),
                            info("[POWR]State:00000005")));
  }
}

struct FailureRow {
  QueryResult result;
  std::uint32_t stateBefore, status, stateAfter;
  const char* text;
};

class FailedReset : public Power, public testing::WithParamInterface<FailureRow> {};

TEST_P(FailedReset, IsReportedByStatusAndState) {
  const FailureRow& row = GetParam();
  for (const int operation : {1, 2}) {
    reader_.setState(row.stateBefore);
    reader_.setCardReady(1);
    reader_.atrResult = row.result;
    EXPECT_EQ(power(operation), row.status);
    EXPECT_EQ(information_, 0u);
    EXPECT_EQ(reader_.state(), row.stateAfter);
    EXPECT_EQ(reader_.cardReady(), 0u);
    EXPECT_THAT(log_.records(), ElementsAre(info("[POWR]IOCTL_SMARTCARD_POWER"),
                                            info(operation == 1 ? "[POWR]SCARD_COLD_RESET"
                                                                : "[POWR]SCARD_WARM_RESET"),
                                            info(row.text)));
  }
}

constexpr char kUnrecognized[] = "[POWR]Status:800706F9 State:00000002";
constexpr char kAbsent[] = "[POWR]Status:C0000178 State:00000001";

INSTANTIATE_TEST_SUITE_P(
    Outcomes, FailedReset,
    testing::Values(FailureRow{QueryResult::kFailure, 2, 0x800706F9, 2, kUnrecognized},
                    FailureRow{QueryResult::kFailure, 3, 0x800706F9, 2, kUnrecognized},
                    FailureRow{QueryResult::kFailure, 6, 0x800706F9, 2, kUnrecognized},
                    FailureRow{QueryResult::kFailure, 1, 0xC0000178, 1, kAbsent},
                    FailureRow{QueryResult::kFailure, 0, 0xC0000178, 1, kAbsent},
                    FailureRow{QueryResult::kTimeout, 6, 0xC0000178, 1, kAbsent},
                    FailureRow{QueryResult::kTimeout, 1, 0xC0000178, 1, kAbsent}));

TEST_F(Power, OperationsThatThereAreNotSucceedAndDoNothing) {
  reader_.setState(SCARD_SPECIFIC);
  for (const std::int32_t operation : {3, 4, 5, -1, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(power(operation), 0u);
    EXPECT_EQ(information_, 0u);
    EXPECT_THAT(output_, IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre(info("[POWR]IOCTL_SMARTCARD_POWER")));
  }
  EXPECT_EQ(reader_.state(), SCARD_SPECIFIC);
  EXPECT_THAT(reader_.resetFlags, IsEmpty());
}

TEST_F(Power, WithoutInputMemorySucceedsAndDoesNothing) {
  FakeRequest request(device_);
  reader_.IoSmartCardPower(&request, 0, 0);
  EXPECT_EQ(request.status(), 0u);
  EXPECT_THAT(log_.records(), ElementsAre(info("[POWR]IOCTL_SMARTCARD_POWER"),
                                          error(kNoCode, "GetInputMemory failed")));
}

class Initialisation : public Power {
 protected:
  std::uint32_t attribute(std::uint32_t tag) {
    FakeRequest request(device_);
    request.withInput(tag).withOutput(4);
    reader_.IoSmartCardGetAttribute(&request, 4, 4);
    const Bytes bytes = request.output();
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
  }

  // Whether set protocol accepts the mask.
  bool accepts(std::uint32_t mask) {
    FakeRequest request(device_);
    request.withInput(mask);
    const Bytes atr = std::exchange(reader_.atr, {0x3B, 0x00});
    const QueryResult result = std::exchange(reader_.atrResult, QueryResult::kSuccess);
    reader_.IoSmartCardSetProtocol(&request, 4, 0);
    reader_.atr = atr;
    reader_.atrResult = result;
    return request.status() == 0;
  }
};

TEST_F(Initialisation, OfATwoByteAtrOffersT0AndKeepsTheRates) {
  reader_.atr = {0x3B, 0x00};
  EXPECT_TRUE(reader_.initializeProtocols());
  EXPECT_THAT(log_.records(), ElementsAre(info("Initializing protocols...")));
  EXPECT_EQ(reader_.resetFlags, std::vector<bool>{true});
  EXPECT_EQ(attribute(SCARD_ATTR_MAX_CLK), 5000u);
  EXPECT_EQ(attribute(SCARD_ATTR_DEFAULT_DATA_RATE), 10752u);
  EXPECT_EQ(attribute(SCARD_ATTR_MAX_DATA_RATE), 10752u);
  EXPECT_TRUE(accepts(1));
  EXPECT_FALSE(accepts(2));
}

TEST_F(Initialisation, ChangesNoState) {
  reader_.setState(SCARD_SPECIFIC);
  EXPECT_TRUE(reader_.initializeProtocols());
  EXPECT_EQ(reader_.state(), SCARD_SPECIFIC);
}

TEST_F(Initialisation, WithTa1SetsTheRatesAndTheRawProtocolNumber) {
  reader_.atr = {0x3B, 0x95, 0x13, 0x81, 0x01};
  EXPECT_TRUE(reader_.initializeProtocols());
  EXPECT_THAT(log_.records(), ElementsAre(info("Initializing protocols..."),
                                          info("TA(1): Fi 372; Di 4; Fmax 5000kHz")));
  EXPECT_EQ(attribute(SCARD_ATTR_DEFAULT_DATA_RATE), 43010u);
  EXPECT_EQ(attribute(SCARD_ATTR_MAX_DATA_RATE), 53763u);
  EXPECT_EQ(attribute(SCARD_ATTR_MAX_CLK), 5000u);
  EXPECT_EQ(reader_.currentProtocol(), 1u);
  EXPECT_TRUE(accepts(2));
  EXPECT_FALSE(accepts(1));
}

TEST_F(Initialisation, LogsTa1BeforeTa3) {
  reader_.atr = {0x3B, 0x90, 0xA9, 0x80, 0x11, 0x7F};
  EXPECT_TRUE(reader_.initializeProtocols());
  EXPECT_THAT(log_.records(),
              ElementsAre(info("Initializing protocols..."),
                          info("TA(1): Fi 768; Di 20; Fmax 7500kHz"), info("TA(3): IFSC: 127")));
  EXPECT_EQ(attribute(SCARD_ATTR_CURRENT_IFSC), 127u);
}

TEST_F(Initialisation, OfAFailedQueryOffersNothing) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    log_.clear();
    ASSERT_TRUE(reader_.initializeProtocols());
    log_.clear();
    reader_.atrResult = result;
    reader_.atr = {0x3B, 0x00, 0x01};
    EXPECT_FALSE(reader_.initializeProtocols());
    EXPECT_THAT(log_.records(),
                ElementsAre(info("Initializing protocols..."),
                            error(kNoCode,
                                  "ATR query failed (size = 3). Failed to initialize protocols.")));
    EXPECT_FALSE(accepts(3));
    EXPECT_FALSE(accepts(SCARD_PROTOCOL_DEFAULT));
    reader_.atrResult = QueryResult::kSuccess;
  }
}

TEST_F(Initialisation, OfAOneByteAtrIsRefusedWithItsSize) {
  reader_.atr = {0x3B};
  EXPECT_FALSE(reader_.initializeProtocols());
  EXPECT_THAT(
      log_.errors(),
      ElementsAre(error(kNoCode, "ATR query failed (size = 1). Failed to initialize protocols.")));
}

TEST_F(Initialisation, OfAnInvalidInitialByteIsRefused) {
  reader_.atr = {0x3C, 0x00};
  EXPECT_FALSE(reader_.initializeProtocols());
  EXPECT_THAT(log_.records(), ElementsAre(info("Initializing protocols..."),
                                          error(kNoCode, "ATR has invalid initial byte TS")));
  EXPECT_FALSE(accepts(3));
}

}  // namespace
}  // namespace zelta
