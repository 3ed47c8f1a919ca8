#include "tools/trace/atr.h"

#include <gtest/gtest.h>

#include <string>

#include "contract/bytes.h"

namespace zelta::trace {
namespace {

Atr parsed(const std::string& digits) { return parseAtr(parseHex(digits).value()); }

// "name: value", a line each.
std::string described(const std::string& digits) {
  std::string text;
  for (const auto& [name, value] : describeAtr(parseHex(digits).value())) {
    text += name + ": " + value + "\n";
  }
  return text;
}

TEST(Atr, ShortestOne_HasTheDefaults) {
  const Atr atr = parsed("3B00");
  EXPECT_EQ(atr.problem, "");
  EXPECT_FALSE(atr.inverse);
  EXPECT_EQ(atr.protocols, std::vector<int>{0});
  EXPECT_EQ(atr.clockDivisor, 372);
  EXPECT_EQ(atr.rateFactor, 1);
  EXPECT_EQ(atr.longestClock, 5000);
  EXPECT_FALSE(atr.checkGood);
  EXPECT_EQ(described("3B00"),
            "protocols: T=0\n"
            "clock: at most 5 MHz (Fi 372)\n"
            "rate: at most 13440 bit/s (Di 1, 372 clocks a bit)\n"
            "guard time: 0 bits more\n"
            "T=0: waiting integer 10\n"
            "historical: none\n");
}

TEST(Atr, TZeroCard_HasNoCheckByte) {
  const Atr atr = parsed("3B7A18000073667465206364313434");
  EXPECT_EQ(atr.problem, "");
  EXPECT_EQ(atr.protocols, std::vector<int>{0});
  EXPECT_EQ(atr.rateFactor, 12);
  EXPECT_EQ(std::string(atr.historical.begin(), atr.historical.end()), "sfte cd144");
  EXPECT_EQ(described("3B7A18000073667465206364313434"),
            "protocols: T=0\n"
            "clock: at most 5 MHz (Fi 372)\n"
            "rate: at most 161290 bit/s (Di 12, 31 clocks a bit)\n"
            "guard time: 0 bits more\n"
            "T=0: waiting integer 10\n"
            "historical: 73667465206364313434 \"sfte cd144\"\n");
}

TEST(Atr, TOneCard_HasItsBlocksAndTimes) {
  // A card with T=1 alone, blocks of 254 bytes and compact-TLV historical bytes.
  const std::string digits = "3BDA18FF81B1FE751F030031C573C001400090000C";
  const Atr atr = parsed(digits);
  EXPECT_EQ(atr.problem, "");
  EXPECT_EQ(atr.checkGood, true);
  EXPECT_EQ(atr.protocols, std::vector<int>{1});
  EXPECT_EQ(atr.guardTime, 255);
  EXPECT_EQ(atr.fieldSize, 254);
  EXPECT_EQ(atr.blockWaiting, 7);
  EXPECT_EQ(atr.characterWaiting, 5);
  EXPECT_FALSE(atr.usesCrc);
  EXPECT_EQ(described(digits),
            "protocols: T=1\n"
            "clock: at most 5 MHz (Fi 372)\n"
            "rate: at most 161290 bit/s (Di 12, 31 clocks a bit)\n"
            "guard time: the shortest\n"
            "T=1: blocks of 254 bytes, BWI 7, CWI 5, LRC\n"
            "historical: 0031C573C00140009000 \".1.s..@...\": services C5, capabilities C00140, "
            "status 009000\n");
}

TEST(Atr, BothProtocolsAndSpecificMode_AreNamed) {
  const Atr specific = parsed("3BD095FF1000");
  EXPECT_EQ(specific.problem, "");
  EXPECT_EQ(specific.protocols, std::vector<int>{0});
  EXPECT_EQ(specific.specific, 0);
  EXPECT_EQ(specific.clockDivisor, 512);
  EXPECT_EQ(specific.rateFactor, 16);
  const Atr both = parsed("3B80800101");
  EXPECT_EQ(both.problem, "");
  EXPECT_EQ(both.protocols, (std::vector<int>{0, 1}));
}

TEST(Atr, BytesOfNoProtocol_NameNone) {
  const Atr atr = parsed("3B80801FC7D8");
  EXPECT_EQ(atr.problem, "");
  EXPECT_EQ(atr.checkGood, true);
  EXPECT_EQ(atr.protocols, std::vector<int>{0});
}

TEST(Atr, InverseConvention_IsTold) { EXPECT_TRUE(parsed("3F00").inverse); }

TEST(Atr, ReservedRates_AreNoNumbers) {
  const Atr atr = parsed("3B1070");
  EXPECT_EQ(atr.problem, "");
  EXPECT_FALSE(atr.clockDivisor);
  EXPECT_FALSE(atr.rateFactor);
  EXPECT_NE(described("3B1070").find("rate: reserved value\n"), std::string::npos);
}

TEST(Atr, MalformedAtr_IsToldWithItsFault) {
  const std::pair<const char*, const char*> kWrong[] = {
      {"", "begins with neither 3B nor 3F"},
      {"00", "begins with neither 3B nor 3F"},
      {"3B", "ends before T0"},
      {"3B10", "ends within the interface bytes"},
      {"3B80", "ends within the interface bytes"},
      {"3B0211", "ends within the historical bytes"},
      {"3B8001", "has no check byte"},
      {"3B800180", "has a wrong check byte"},
      {"3B0000", "goes on after its end"},
      {"3B80018100", "goes on after its end"},
  };
  for (const auto& [digits, problem] : kWrong) {
    EXPECT_EQ(parsed(digits).problem, problem) << digits;
    EXPECT_EQ(described(digits).find("problem: the ATR " + std::string(problem)), 0u) << digits;
  }
}

TEST(Atr, HistoricalBytesThatOnlyLookCompact_AreShownAlone) {
  EXPECT_NE(described("3B038073AA").find("historical: 8073AA \".s.\"\n"), std::string::npos);
}

}  // namespace
}  // namespace zelta::trace
