// Golden bytes: what an agent built elsewhere relies on.
#include "contract/wire.h"

#include <gtest/gtest.h>

#include <limits>

namespace zelta {
namespace {

static_assert(kQueryTime == std::chrono::seconds(5));
static_assert(kAnswerTime == std::chrono::milliseconds(4500));

TEST(Wire, CommandCodesHaveTheirNumbers) {
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::kQueryAtrReset), 0u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::kQueryAtr), 1u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit), 2u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady), 3u);
}

TEST(Wire, EventCodesHaveTheirNumbers) {
  EXPECT_EQ(static_cast<std::uint32_t>(AgentEvent::kCardRemoved), 0u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentEvent::kCardInserted), 1u);
  EXPECT_EQ(static_cast<std::uint32_t>(AgentEvent::kSessionLogId), 2u);
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
