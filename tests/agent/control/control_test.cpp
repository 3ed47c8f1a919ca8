#include "agent/control/control.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/held_card.h"

namespace zelta::agent {
namespace {

Agent::Status someStatus() {
  Agent::Status status;
  status.connected = true;
  status.reader = 3;
  status.sessionId = "id";
  status.backend = "script";
  status.cardIn = true;
  status.atr = {0x3B, 0x00};
  status.apdus = 7;
  status.errors = 1;
  status.timeouts = 2;
  status.reconnects = 3;
  return status;
}

TEST(Control, StatusForPeople_HasALineForEachValue) {
  EXPECT_EQ(statusText(someStatus()),
            "reader:    3\n"
            "driver:    connected\n"
            "back end:  script\n"
            "card:      in\n"
            "ATR:       3B00\n"
            "session:   id\n"
            "counts:    7 APDUs, 1 error, 2 time-outs, 3 reconnects\n");
  EXPECT_EQ(statusText(Agent::Status()),
            "reader:    0\n"
            "driver:    not connected\n"
            "back end:  \n"
            "card:      out\n"
            "ATR:       -\n"
            "session:   \n"
            "counts:    0 APDUs, 0 errors, 0 time-outs, 0 reconnects\n");
}

TEST(Control, StatusForPrograms_IsOneJsonObject) {
  EXPECT_EQ(statusJson(someStatus()),
            "{\"reader\":3,\"connected\":true,\"backend\":\"script\",\"card\":\"in\","
            "\"atr\":\"3B00\",\"session_id\":\"id\",\"apdus\":7,\"errors\":1,\"timeouts\":2,"
            "\"reconnects\":3}\n");
  Agent::Status odd;
  odd.sessionId = "a\"b\\c\n";
  EXPECT_EQ(statusJson(odd),
            "{\"reader\":0,\"connected\":false,\"backend\":\"\",\"card\":\"out\","
            "\"atr\":null,\"session_id\":\"a\\\"b\\\\c\\n\",\"apdus\":0,\"errors\":0,"
            "\"timeouts\":0,\"reconnects\":0}\n");
}

TEST(Control, StatusForPrograms_SaysToWhomReadsItWhetherACardIsIn) {
  Agent::Status status = someStatus();
  EXPECT_TRUE(saysCardIsIn(kControlOk + statusJson(status), status.reader));
  status.cardIn = false;
  EXPECT_FALSE(saysCardIsIn(kControlOk + statusJson(status), status.reader));
}

TEST(Control, TextsOfOthers_ForgeNoRowAndReachNoTerminal) {
  Agent::Status odd;
  odd.sessionId = "a\ncard:      in\x1b[2J";
  odd.backend = "b\u202E";
  const std::string text = statusText(odd);
  EXPECT_NE(text.find("session:   a\\x0acard:      in\\x1b[2J\n"), text.npos) << text;
  EXPECT_NE(text.find("back end:  b\\xe2\\x80\\xae\n"), text.npos) << text;
  const std::string json = statusJson(odd);
  EXPECT_NE(json.find("\"backend\":\"b\\u202e\""), json.npos) << json;
  EXPECT_EQ(readControlAnswer(kControlOk + json).text, json);
}

TEST(Control, TraceBegin_IsTheStatusWithATime) {
  const auto begin = nlohmann::json::parse(traceBegin(someStatus()));
  EXPECT_EQ(begin["kind"], "begin");
  EXPECT_EQ(begin["session_id"], "id");
  EXPECT_GT(begin["time_us"], 1700000000000000);
}

TEST(Control, Command_IsDoneOrRefusedWithTheReason) {
  test::PipeFolder folder;
  test::HeldCard card;
  test::RunningAgent running(card);
  Agent& agent = running.agent();
  EXPECT_EQ(answerControl(agent, "insert"), "error: a card is in already\n");
  EXPECT_EQ(answerControl(agent, "remove"), "ok\n");
  EXPECT_FALSE(agent.status().cardIn);
  EXPECT_EQ(answerControl(agent, "remove"), "error: no card is in\n");
  EXPECT_EQ(answerControl(agent, "insert"), "ok\n");
  EXPECT_TRUE(agent.status().cardIn);
  EXPECT_EQ(answerControl(agent, "status"), "ok\n" + statusText(agent.status()));
  EXPECT_EQ(answerControl(agent, "status json"), "ok\n" + statusJson(agent.status()));
  EXPECT_EQ(answerControl(agent, "jump\x01"), "error: not understood: jump\\x01\n");
  EXPECT_EQ(answerControl(agent, ""), "error: not understood: \n");
}

TEST(Control, Answer_IsReadAsSuccessOrFailureWithItsText) {
  EXPECT_TRUE(readControlAnswer("ok\nmore\n").success);
  EXPECT_EQ(readControlAnswer("ok\nmore\n").text, "more\n");
  EXPECT_FALSE(readControlAnswer("error: no\n").success);
  EXPECT_EQ(readControlAnswer("error: no\n").text, "no\n");
  EXPECT_EQ(readControlAnswer("ok\nmore\x1b[2J\nlast").text, "more\\x1b[2J\nlast\n");
  EXPECT_EQ(readControlAnswer("error: no\x1b[2J\n").text, "no\\x1b[2J\n");
  EXPECT_FALSE(readControlAnswer("").success);
  EXPECT_FALSE(readControlAnswer("o").success);
}

}  // namespace
}  // namespace zelta::agent
