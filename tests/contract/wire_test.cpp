// Golden bytes that an agent built elsewhere relies on.
#include "contract/wire.h"

#include <gtest/gtest.h>

namespace zelta {
namespace {

static_assert(kQueryTime == std::chrono::seconds(5));
static_assert(kAnswerTime == std::chrono::milliseconds(4500));

static_assert(static_cast<std::uint32_t>(AgentCommand::kQueryAtrReset) == 0);
static_assert(static_cast<std::uint32_t>(AgentCommand::kQueryAtr) == 1);
static_assert(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit) == 2);
static_assert(static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady) == 3);

static_assert(static_cast<std::uint32_t>(AgentEvent::kCardRemoved) == 0);
static_assert(static_cast<std::uint32_t>(AgentEvent::kCardInserted) == 1);
static_assert(static_cast<std::uint32_t>(AgentEvent::kSessionLogId) == 2);

static_assert(sizeof kPipePrefix - 1 == 38);

struct NameRow {
  std::uint32_t index;
  const char* command;
  const char* event;
};

class PipeNames : public testing::TestWithParam<NameRow> {};

TEST_P(PipeNames, Reader_HasNamesThatEndWithItsUnsignedIndex) {
  EXPECT_EQ(commandPipeName(GetParam().index), GetParam().command);
  EXPECT_EQ(eventPipeName(GetParam().index), GetParam().event);
}

INSTANTIATE_TEST_SUITE_P(
    Readers, PipeNames,
    testing::Values(
        NameRow{0, R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_command0)",
                R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_event0)"},
        NameRow{4294967295,
                R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_command4294967295)",
                R"(\\.\pipe\ProtectedPrefix\LocalService\zelta_smartcard_event4294967295)"}),
    [](const auto& each) { return "Reader" + std::to_string(each.param.index); });

}  // namespace
}  // namespace zelta
