// Shared by the tests of the whole agent: a card, and a driver on the system's pipes.
#pragma once

#include <gtest/gtest.h>

#include "contract/wire.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/driver_end.h"
#include "tests/doubles/agent/held_card.h"

namespace zelta::test {

inline const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
inline constexpr auto kTransmitCode = static_cast<std::uint32_t>(AgentCommand::kQueryTransmit);
inline constexpr auto kResetCode = static_cast<std::uint32_t>(AgentCommand::kQueryAtrReset);

class AgentTest : public testing::Test {
 protected:
  static void expectServed(DriverEnd& driver) {
    EXPECT_EQ(driver.acceptSession(), kSession);
    EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  }

  PipeFolder folder_;
  HeldCard card_;
};

}  // namespace zelta::test
