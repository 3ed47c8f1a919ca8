#include "tools/status/report.h"

#include <gtest/gtest.h>

#include "contract/bytes.h"

namespace zelta::status {
namespace {

View wholeView() {
  View view;
  view.agentJson =
      "{\"reader\":0,\"connected\":true,\"backend\":\"script\",\"card\":\"in\",\"atr\":\"3B00\","
      "\"session_id\":\"id\",\"apdus\":1,\"errors\":2,\"timeouts\":0,\"reconnects\":3}\n";
  view.pcsc.reader = "Reader";
  view.pcsc.state = "negotiable";
  view.pcsc.protocol = "T=0";
  view.pcsc.atr = {0x3B, 0x01};
  view.logFile = "/log.txt";
  return view;
}

TEST(Report, Table_HasALineForEachValue) {
  EXPECT_EQ(reportText(wholeView()),
            "reader:    0\n"
            "name:      Reader\n"
            "state:     negotiable\n"
            "protocol:  T=0\n"
            "driver:    connected\n"
            "back end:  script\n"
            "card:      in\n"
            "ATR:       3B00\n"
            "  protocols   T=0\n"
            "  clock       at most 5 MHz (Fi 372)\n"
            "  rate        at most 13440 bit/s (Di 1, 372 clocks a bit)\n"
            "  guard time  0 bits more\n"
            "  T=0         waiting integer 10\n"
            "  historical  none\n"
            "session:   id\n"
            "counts:    1 APDU, 2 errors, 0 time-outs, 3 reconnects\n"
            "log file:  /log.txt\n");
}

TEST(Report, TextsOfOthers_ForgeNoRow) {
  View view = wholeView();
  view.agentJson = "{\"session_id\":\"a\\ncard:      in\",\"backend\":\"\\u001b[2J\"}\n";
  view.logFile = "/zelta_vsc_\nagent:     x.txt";
  const std::string text = reportText(view);
  EXPECT_NE(text.find("back end:  \\x1b[2J\n"), text.npos) << text;
  EXPECT_NE(text.find("session:   a\\x0acard:      in\n"), text.npos) << text;
  EXPECT_NE(text.find("log file:  /zelta_vsc_\\x0aagent:     x.txt\n"), text.npos) << text;
}

TEST(Report, WhatIsMissing_IsToldWithItsReason) {
  View view;
  view.agentProblem = "no agent is running at x";
  view.pcsc.problem = "Service not available.";
  EXPECT_EQ(reportText(view),
            "agent:     no agent is running at x\n"
            "name:      - (Service not available.)\n"
            "state:     - (Service not available.)\n"
            "protocol:  -\n"
            "ATR:       -\n"
            "log file:  -\n");
  EXPECT_EQ(reportJson(view),
            "{\"agent\":null,\"name\":null,\"state\":null,\"protocol\":null,\"log_file\":null,"
            "\"atr_decoded\":null}\n");
}

TEST(Report, Json_IsTheAgentsWithReaderStateAndLog) {
  View view = wholeView();
  view.agentJson = "{\"reader\":0,\"atr\":null}\n";
  view.pcsc.atr = {0x3B, 0x00};
  EXPECT_EQ(reportJson(view),
            "{\"reader\":0,\"atr\":null,\"name\":\"Reader\",\"state\":\"negotiable\","
            "\"protocol\":\"T=0\",\"log_file\":\"/log.txt\",\"atr_decoded\":{"
            "\"protocols\":\"T=0\",\"clock\":\"at most 5 MHz (Fi 372)\","
            "\"rate\":\"at most 13440 bit/s (Di 1, 372 clocks a bit)\","
            "\"guard time\":\"0 bits more\",\"T=0\":\"waiting integer 10\","
            "\"historical\":\"none\"}}\n");
}

}  // namespace
}  // namespace zelta::status
