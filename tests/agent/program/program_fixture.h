// Runs the whole program as a process, with scripted cards.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "contract/wire.h"
#include "tests/agent/agent_process.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/driver_end.h"
#include "tests/support/system.h"

namespace zelta::test {

inline const Bytes kAtr = {0x3B, 0x00};
inline const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
inline const Bytes kOk = {0x90, 0x00};
inline constexpr char kPlain[] = "atr 3B00\ncommand 00A4* -> 9000\n";
// Blocks its card in every command.
inline constexpr char kSlow[] = "atr 3B00\ncommand * -> 9000 after 1000s\n";

class Program : public testing::Test {
 protected:
  // Arguments for a card with this script, with the test's own control path.
  std::vector<std::string> script(const std::string& text,
                                  const std::vector<std::string>& more = {}) {
    std::ofstream(folder_.file("script"), std::ios::binary) << text;
    std::vector<std::string> arguments = {"--backend", "script", "--script", folder_.file("script"),
                                          "-v"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return withControl(std::move(arguments));
  }
  std::vector<std::string> withControl(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--control", control()});
    return arguments;
  }
  std::string control() const { return controlPathFor(folder_.path()); }
  // Runs `zelta-agent ctl` with these arguments.
  Ended ctl(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "ctl");
    return runProgram(withControl(std::move(arguments)));
  }
  // Reads on until the program serves: its control path and its signals work.
  static void waitReady(AgentProcess& process) {
    ASSERT_TRUE(process.readLineWith(" card, session "));
  }

  PipeFolder folder_;
};

}  // namespace zelta::test
