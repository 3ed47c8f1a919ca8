// Golden bytes: what an agent built elsewhere relies on.
#include "agent_link/wire.h"

#include <gtest/gtest.h>

#include <limits>

namespace zelta {
namespace {

using Number = std::array<std::uint8_t, 4>;

TEST(Wire, CommandCodesHaveTheirNumbers) {
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::QueryAtrReset), 0u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::QueryAtr), 1u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::QueryTransmit), 2u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::NotifyCardReady), 3u);
}

TEST(Wire, EventCodesHaveTheirNumbers) {
  EXPECT_EQ(static_cast<std::uint32_t>(AgentEvent::CardRemoved), 0u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentEvent::CardInserted), 1u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentEvent::SessionLogId), 2u);
}

TEST(Wire, NumbersTravelLittleEndian) {
  EXPECT_EQ(encodeNumber(2), (Number{0x02, 0, 0, 0}));
  EXPECT_EQ(encodeNumber(0x12345678), (Number{0x78, 0x56, 0x34, 0x12}));
  EXPECT_EQ(encodeNumber(0xFFFFFFFE), (Number{0xFE, 0xFF, 0xFF, 0xFF}));
}

TEST(Wire, NumbersComeBackAsTheyWere) {
  EXPECT_EQ(decodeNumber({0x02, 0, 0, 0}), 2u);
  EXPECT_EQ(decodeNumber({0x78, 0x56, 0x34, 0x12}), 0x12345678u);
  EXPECT_EQ(decodeNumber({0xFE, 0xFF, 0xFF, 0xFF}), 0xFFFFFFFEu);
}

TEST(Wire, PipeNamesOfReaderZero) {
  EXPECT_EQ(commandPipeName(0),
            R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_command0)");
  EXPECT_EQ(eventPipeName(0), R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_event0)");
}

TEST(Wire, PipeNamesEndWithTheUnsignedIndex) {
  EXPECT_EQ(eventPipeName(12), R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_event12)");
  const std::uint32_t last = std::numeric_limits<std::uint32_t>::max();
  EXPECT_EQ(commandPipeName(last),
            R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_command4294967295)");
  EXPECT_EQ(eventPipeName(last),
            R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_event4294967295)");
}

TEST(Wire, PipePrefixHas38Characters) { EXPECT_EQ(std::string(kPipePrefix).size(), 38u); }

}  // namespace
}  // namespace zelta
