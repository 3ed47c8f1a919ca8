#include "contract/attributes.h"
#include "tests/reader/reader_fixture.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Power : public ReaderFixture {
 protected:
  Answer power(std::int32_t operation) {
    return ask(&Reader::IoSmartCardPower, number(static_cast<std::uint32_t>(operation)));
  }
  const LogRecord begin_ = info("[POWR]IOCTL_SMARTCARD_POWER");
};

TEST_F(Power, DownSwallowsTheCardAndClearsProtocolAndReadiness) {
  insert({0x3B, 0x80, 0x01});
  reader_.setCardReady(1);
  reader_.setState(SCARD_SPECIFIC);
  EXPECT_EQ(power(0), answered({}));
  EXPECT_EQ(reader_.state(), 3u);
  EXPECT_EQ(reader_.currentProtocol(), 0u);
  EXPECT_EQ(reader_.cardReady(), 0u);
  EXPECT_THAT(log_.records(), ElementsAre(begin_, info("[POWR]SCARD_POWER_DOWN")));
}

TEST_F(Power, ResetGivesTheAtrAndMakesTheReaderNegotiable) {
  for (const auto& [operation, text] :
       {std::pair{1, "[POWR]SCARD_COLD_RESET"}, {2, "[POWR]SCARD_WARM_RESET"}}) {
    insert({0x3B, 0x95, 0x13, 0x81, 0x01});  // leaves a protocol
    reader_.setCardReady(0);
    EXPECT_EQ(power(operation), answered(reader_.atr));
    EXPECT_EQ(reader_.state(), 5u);
    EXPECT_EQ(reader_.cardReady(), 1u);
    EXPECT_EQ(reader_.currentProtocol(), 0u);
    EXPECT_EQ(reader_.resetFlags, std::vector<bool>{true});
    EXPECT_THAT(log_.records(), ElementsAre(begin_, info(text), info("[POWR]State:00000005")));
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
  for (const auto& [operation, text] :
       {std::pair{1, "[POWR]SCARD_COLD_RESET"}, {2, "[POWR]SCARD_WARM_RESET"}}) {
    reader_.setState(row.stateBefore);
    reader_.setCardReady(1);
    reader_.atrResult = row.result;
    EXPECT_EQ(power(operation), refused(row.status));
    EXPECT_EQ(reader_.state(), row.stateAfter);
    EXPECT_EQ(reader_.cardReady(), 0u);
    EXPECT_THAT(log_.records(), ElementsAre(begin_, info(text), info(row.text)));
  }
}

constexpr char kUnrecognized[] = "[POWR]Status:800706F9 State:00000002";
constexpr char kAbsent[] = "[POWR]Status:C0000178 State:00000001";

INSTANTIATE_TEST_SUITE_P(
    Outcomes, FailedReset,
    testing::Values(FailureRow{QueryResult::kFailure, 2, 0x800706F9, 2, kUnrecognized},
                    FailureRow{QueryResult::kFailure, 3, 0x800706F9, 2, kUnrecognized},
                    FailureRow{QueryResult::kFailure, 6, 0x800706F9, 2, kUnrecognized},
                    FailureRow{QueryResult::kFailure, 1, kNoMedia, 1, kAbsent},
                    FailureRow{QueryResult::kFailure, 0, kNoMedia, 1, kAbsent},
                    FailureRow{QueryResult::kTimeout, 6, kNoMedia, 1, kAbsent},
                    FailureRow{QueryResult::kTimeout, 1, kNoMedia, 1, kAbsent}),
    [](const auto& each) {
      const bool timedOut = each.param.result == QueryResult::kTimeout;
      return (timedOut ? "TimeOutInState" : "FailureInState") +
             std::to_string(each.param.stateBefore);
    });

TEST_F(Power, UnknownOperationSucceedsAndDoesNothing) {
  reader_.setState(SCARD_SPECIFIC);
  for (const std::int32_t operation : {3, 4, 5, -1, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(power(operation), answered({}));
    EXPECT_THAT(log_.records(), ElementsAre(begin_));
  }
  EXPECT_EQ(ask(&Reader::IoSmartCardPower, std::nullopt), answered({}));
  EXPECT_THAT(log_.records(), ElementsAre(begin_, error(kNoError, "GetInputMemory failed")));
  EXPECT_EQ(reader_.state(), SCARD_SPECIFIC);
  EXPECT_THAT(reader_.resetFlags, IsEmpty());
}

class Initialisation : public ReaderFixture {
 protected:
  bool initialise(const Bytes& atr, QueryResult result = QueryResult::kSuccess) {
    log_.clear();
    reader_.atr = atr;
    reader_.atrResult = result;
    const bool done = reader_.initializeProtocols();
    records_ = log_.records();
    reader_.atrResult = QueryResult::kSuccess;
    return done;
  }

  void expectRefused(const Bytes& atr, QueryResult result, const std::string& text) {
    ASSERT_TRUE(initialise({0x3B, 0x00}));
    EXPECT_FALSE(initialise(atr, result));
    EXPECT_THAT(records_, ElementsAre(begin_, error(kNoError, text)));
    EXPECT_FALSE(accepts(3));
    EXPECT_FALSE(accepts(SCARD_PROTOCOL_DEFAULT));
  }

  // Whether set protocol accepts the mask.
  bool accepts(std::uint32_t mask) {
    return ask(&Reader::IoSmartCardSetProtocol, number(mask)).status == 0;
  }

  void expectRates(std::uint32_t maxClock, std::uint32_t defaultRate, std::uint32_t maxRate) {
    const auto attribute = [this](std::uint32_t tag) {
      return ask(&Reader::IoSmartCardGetAttribute, number(tag)).output;
    };
    EXPECT_EQ(attribute(SCARD_ATTR_MAX_CLK), number(maxClock));
    EXPECT_EQ(attribute(SCARD_ATTR_DEFAULT_DATA_RATE), number(defaultRate));
    EXPECT_EQ(attribute(SCARD_ATTR_MAX_DATA_RATE), number(maxRate));
  }

  const LogRecord begin_ = info("Initializing protocols...");
  Records records_;
};

TEST_F(Initialisation, TwoByteAtr_OffersT0AndKeepsRatesAndState) {
  reader_.setState(SCARD_SPECIFIC);
  EXPECT_TRUE(initialise({0x3B, 0x00}));
  EXPECT_EQ(reader_.state(), SCARD_SPECIFIC);
  EXPECT_THAT(records_, ElementsAre(begin_));
  EXPECT_EQ(reader_.resetFlags, std::vector<bool>{true});
  expectRates(5000, 10752, 10752);
  EXPECT_TRUE(accepts(1));
  EXPECT_FALSE(accepts(2));
}

TEST_F(Initialisation, AtrWithTa1_SetsTheRatesAndTheRawProtocolNumber) {
  EXPECT_TRUE(initialise({0x3B, 0x95, 0x13, 0x81, 0x01}));
  EXPECT_THAT(records_, ElementsAre(begin_, info("TA(1): Fi 372; Di 4; Fmax 5000kHz")));
  EXPECT_EQ(reader_.currentProtocol(), 1u);
  expectRates(5000, 43010, 53763);
  EXPECT_TRUE(accepts(2));
  EXPECT_FALSE(accepts(1));
}

TEST_F(Initialisation, AtrWithTa1AndTa3_LogsThemInThisOrder) {
  EXPECT_TRUE(initialise({0x3B, 0x90, 0xA9, 0x80, 0x11, 0x7F}));
  EXPECT_THAT(records_, ElementsAre(begin_, info("TA(1): Fi 768; Di 20; Fmax 7500kHz"),
                                    info("TA(3): IFSC: 127")));
}

TEST_F(Initialisation, UnusableAtr_OffersNothing) {
  constexpr char kThreeBytes[] = "ATR query failed (size = 3). Failed to initialize protocols.";
  constexpr char kOneByte[] = "ATR query failed (size = 1). Failed to initialize protocols.";
  expectRefused({0x3B, 0x00, 0x01}, QueryResult::kFailure, kThreeBytes);
  expectRefused({0x3B, 0x00, 0x01}, QueryResult::kTimeout, kThreeBytes);
  expectRefused({0x3B}, QueryResult::kSuccess, kOneByte);
  expectRefused({0x3C, 0x00}, QueryResult::kSuccess, "ATR has invalid initial byte TS");
}

}  // namespace
}  // namespace zelta::test
