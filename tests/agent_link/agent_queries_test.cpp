// The exchanges on the command pipe: their bytes, call by call, their results and log lines.
#include <gtest/gtest.h>

#include "contract/reader_states.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/scripted_link.h"

namespace zelta::test {
namespace {

using Records = std::vector<LogRecord>;
using Trace = std::vector<std::string>;

constexpr std::uint32_t kNoData = platform::error::kNoData;
constexpr std::uint32_t kBroken = platform::error::kBrokenPipe;

const Bytes kAtr = {0x3B, 0x95, 0x13, 0x81, 0x01};
const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
const Bytes kNotAccepted = {0x69, 0x01};
constexpr char kRemoved[] =
    "[QueryTransmit]The card was removed, responding request with \"Command Not Accepted\"";

class Queries : public ScriptedLink {
 protected:
  QueryResult transmit(const Bytes& command) { return queryTransmit(command, response_); }
  QueryResult queryAtr(bool reset = true) { return reader().QueryAtr(atr_, reset); }

  Bytes atr_;
  Bytes response_;
};

// The three queries of an ATR. They differ only in their codes and tags.
struct AtrQuery {
  const char* name;
  QueryResult (*ask)(PipeReader& reader, Bytes& atr);
  const char* code;
  const char* tag;
};

class AtrQueries : public Queries, public ::testing::WithParamInterface<AtrQuery> {
 protected:
  QueryResult ask() { return GetParam().ask(reader(), atr_); }
  const Trace sent_{std::string("write command ") + GetParam().code, "flush command",
                    "read command 4"};
};

TEST_P(AtrQueries, WritesItsCodeAndLogsTheAtr) {
  startAccepted();
  agentAnswers(number(5, kAtr));
  EXPECT_EQ(ask(), QueryResult::kSuccess);
  Trace expected = sent_;
  expected.push_back("read command 5");
  EXPECT_EQ(trace(), expected);
  EXPECT_EQ(log_.records(), Records{info(GetParam().tag + std::string("ATR:3B95138101"))});
}

TEST_P(AtrQueries, ZeroLength_FailsAndNothingFurtherIsRead) {
  startAccepted();
  agentAnswers(number(0));
  EXPECT_EQ(ask(), QueryResult::kFailure);
  EXPECT_EQ(trace(), sent_);
  EXPECT_EQ(log_.records(),
            Records{error(kNoError, GetParam().tag + std::string("Invalid ATR size (0)"))});
}

INSTANTIATE_TEST_SUITE_P(
    All, AtrQueries,
    ::testing::Values(
        AtrQuery{"WithReset",
                 [](PipeReader& reader, Bytes& atr) { return reader.QueryAtr(atr, true); },
                 "00000000", "[QueryATR]"},
        AtrQuery{"WithoutReset",
                 [](PipeReader& reader, Bytes& atr) { return reader.QueryAtr(atr, false); },
                 "01000000", "[QueryATR]"},
        AtrQuery{"Check", [](PipeReader& reader, Bytes&) { return reader.CheckATR(); }, "01000000",
                 "[CheckATR]"}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(Queries, AtrReplacesWhatTheVectorHeld) {
  startAccepted();
  atr_ = Bytes(40, 0xEE);
  agentAnswers(number(5, kAtr));
  EXPECT_EQ(queryAtr(), QueryResult::kSuccess);
  EXPECT_EQ(atr_, kAtr);
}

TEST_F(Queries, Transmit_WritesCodeLengthAndApduOnTheirOwn) {
  startAccepted();
  agentAnswers(number(3, {0xAB, 0x90, 0x00}));
  EXPECT_EQ(transmit(kSelect), QueryResult::kSuccess);
  EXPECT_EQ(response_, (Bytes{0xAB, 0x90, 0x00}));
  EXPECT_EQ(trace(),
            (Trace{"write command 02000000", "write command 04000000", "write command 00A40400",
                   "flush command", "read command 4", "read command 3"}));
  EXPECT_TRUE(log_.records().empty()) << "a response is not logged";
}

TEST_F(Queries, CardReady_IsOneWriteWithoutFlushOrAnswer) {
  startAccepted();
  EXPECT_TRUE(reader().NotifyCardReady());
  EXPECT_EQ(trace(), Trace{"write command 03000000"});
  EXPECT_EQ(log_.records(), Records{info("[NotifyCardReady]Notification sent")});
}

TEST_F(Queries, CardReadyThatCannotBeSent_IsLoggedWithoutTag) {
  pipes_.fail(PipeCallKind::kWrite, kNoData);
  startAccepted();
  EXPECT_FALSE(reader().NotifyCardReady());
  EXPECT_EQ(log_.records(), Records{error(kNoData, "Failed to send ready notification")});
}

TEST_F(Queries, EmptyApdu_Answers6901WithoutTouchingThePipe) {
  startAccepted();
  EXPECT_EQ(transmit({}), QueryResult::kSuccess);
  EXPECT_EQ(response_, kNotAccepted);
  EXPECT_TRUE(trace().empty());
  EXPECT_EQ(log_.records(),
            Records{error(kNoError, "[QueryTransmit]Empty APDU, command not accepted")});
}

TEST_F(Queries, FailedFlush_IsIgnored) {
  pipes_.fail(PipeCallKind::kFlush, kBroken, 1, 3);
  startAccepted();
  agentAnswers(number(5, kAtr));
  agentAnswers(number(5, kAtr));
  agentAnswers(number(2, {0x90, 0x00}));
  EXPECT_EQ(queryAtr(), QueryResult::kSuccess);
  EXPECT_EQ(reader().CheckATR(), QueryResult::kSuccess);
  EXPECT_EQ(transmit(kSelect), QueryResult::kSuccess);
  EXPECT_TRUE(log_.errors().empty());
}

TEST_F(Queries, FailedAtrRead_LeavesTheNewLength) {
  pipes_.fail(PipeCallKind::kRead, kBroken, 2, 1, commandPipeName(0));
  startAccepted();
  agentAnswers(number(33));
  EXPECT_EQ(queryAtr(), QueryResult::kFailure);
  EXPECT_EQ(atr_.size(), 33u);
  EXPECT_EQ(log_.records(), Records{error(kBroken, "[QueryATR]Failed to read ATR data")});
}

TEST_F(Queries, LongAtr_IsLoggedAsFarAsALineGoes) {
  startAccepted();
  agentAnswers(number(300, Bytes(300, 0xA5)));
  EXPECT_EQ(queryAtr(), QueryResult::kSuccess);
  EXPECT_EQ(atr_.size(), 300u);
  std::string text = "[QueryATR]ATR:";
  while (text.size() < 255) text += (text.size() % 2 == 0) ? 'A' : '5';
  EXPECT_EQ(log_.records(), Records{info(text)});
}

TEST_F(Queries, PayloadOfMoreThanOneBlock_IsReadInBlocks) {
  startAccepted();
  agentAnswers(number(PipeStream::kReadBlock, Bytes(PipeStream::kReadBlock, 7)));
  EXPECT_EQ(transmit(kSelect), QueryResult::kSuccess);
  EXPECT_EQ(trace().back(), "read command 1048576");
  EXPECT_EQ(response_, Bytes(PipeStream::kReadBlock, 7));
  const std::uint32_t length = 2 * PipeStream::kReadBlock + 10;
  Bytes payload(length);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i >> 12);
  const Trace inBlocks{"read command 1048576", "read command 1048576", "read command 10"};
  agentAnswers(number(length, payload));
  EXPECT_EQ(transmit(kSelect), QueryResult::kSuccess);
  Trace calls = trace();
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(Trace(calls.end() - 3, calls.end()), inBlocks);
  EXPECT_EQ(response_, payload);
  Bytes atr;
  agentAnswers(number(length, payload));
  EXPECT_EQ(reader().QueryAtr(atr, false), QueryResult::kSuccess);
  calls = trace();
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(Trace(calls.end() - 3, calls.end()), inBlocks);
  EXPECT_EQ(atr, payload);
}

// A late answer stays in the pipe and is read as the next one's beginning: deliberate, and the
// reason why an agent must not send one.
TEST_F(Queries, WhatIsLeftInThePipe_IsReadAsTheNextAnswer) {
  AgentLinkTimes times;
  times.query = std::chrono::milliseconds(300);  // limit for the second one
  startAccepted(times);
  EXPECT_EQ(transmit(kSelect), QueryResult::kTimeout);
  agentAnswers(number(2, {0x90, 0x00}));
  agentAnswers(number(2, {0x6A, 0x82}));
  EXPECT_EQ(transmit(kSelect), QueryResult::kSuccess);
  EXPECT_EQ(response_, (Bytes{0x90, 0x00}));
}

// One failing call of an exchange: which, how the result and the log look.
struct Step {
  const char* name;
  PipeCallKind kind;
  unsigned call;  // of its kind on the command pipe
  const char* text;
};

class AtrSteps : public Queries, public ::testing::WithParamInterface<Step> {};

TEST_P(AtrSteps, FailureIsLoggedWithTheSystemsErrorAndEndsTheExchange) {
  const Step& step = GetParam();
  pipes_.fail(step.kind, kBroken, step.call, 1, commandPipeName(0));
  startAccepted();
  agentAnswers(number(5, kAtr));
  const bool check = std::string(step.text).rfind("[CheckATR]", 0) == 0;
  EXPECT_EQ(check ? reader().CheckATR() : queryAtr(), QueryResult::kFailure);
  EXPECT_EQ(log_.records(), Records{error(kBroken, step.text)});
  const std::string last = trace().back();
  EXPECT_EQ(last.substr(0, last.find(' ')), step.kind == PipeCallKind::kWrite ? "write" : "read");
}

INSTANTIATE_TEST_SUITE_P(
    All, AtrSteps,
    ::testing::Values(
        Step{"QueryWrite", PipeCallKind::kWrite, 1,
             "[QueryATR]Failed to write ATR request command"},
        Step{"QuerySize", PipeCallKind::kRead, 1, "[QueryATR]Failed to read ATR size"},
        Step{"QueryData", PipeCallKind::kRead, 2, "[QueryATR]Failed to read ATR data"},
        Step{"CheckWrite", PipeCallKind::kWrite, 1, "[CheckATR]Failed to write QueryAtr command"},
        Step{"CheckSize", PipeCallKind::kRead, 1, "[CheckATR]Failed to read ATR size"},
        Step{"CheckData", PipeCallKind::kRead, 2, "[CheckATR]Failed to read ATR"}),
    [](const auto& instance) { return instance.param.name; });

class TransmitSteps : public Queries, public ::testing::WithParamInterface<Step> {
 protected:
  void prepare() {
    const Step& step = GetParam();
    if (step.call != 0) pipes_.fail(step.kind, kBroken, step.call, 1, commandPipeName(0));
    startAccepted();
    agentAnswers(step.call != 0 ? number(2, {0x90, 0x00}) : number(0));
  }
};

TEST_P(TransmitSteps, WhileTheCardIsThere_Fails) {
  prepare();
  makeCardPresent();
  log_.clear();
  response_ = {1, 2, 3};
  EXPECT_EQ(transmit(kSelect), QueryResult::kFailure);
  const Records errors = log_.records();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].text, GetParam().text);
  EXPECT_EQ(errors[0].level, static_cast<std::uint8_t>(LogLevel::kError));
  // A zero length is not a failure of the system: its code is the last error, whatever that was.
  if (GetParam().call != 0) {
    EXPECT_EQ(errors[0].code, static_cast<std::int32_t>(kBroken));
  }
  const bool payloadFailed = std::string(GetParam().name) == "Response";
  EXPECT_EQ(response_, payloadFailed ? Bytes{} : (Bytes{1, 2, 3}));
}

TEST_P(TransmitSteps, OnceTheCardIsGone_Answers6901) {
  prepare();
  ASSERT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(transmit(kSelect), QueryResult::kSuccess);
  EXPECT_EQ(response_, kNotAccepted);
  EXPECT_EQ(log_.records(), Records{info(kRemoved)});
  const std::vector<ByteDump> dumps = log_.byteDumps();
  ASSERT_EQ(dumps.size(), 1u);
  EXPECT_EQ(dumps[0].bytes, kSelect);
  EXPECT_EQ(dumps[0].bytesPerLine, 16u);
}

INSTANTIATE_TEST_SUITE_P(
    All, TransmitSteps,
    ::testing::Values(
        Step{"Command", PipeCallKind::kWrite, 1,
             "[QueryTransmit]Failed to write QueryTransmit command"},
        Step{"Size", PipeCallKind::kWrite, 2, "[QueryTransmit]Failed to write APDU request size"},
        Step{"Apdu", PipeCallKind::kWrite, 3, "[QueryTransmit]Failed to write APDU request"},
        Step{"ResponseSize", PipeCallKind::kRead, 1,
             "[QueryTransmit]Failed to read APDU response size"},
        Step{"ZeroSize", PipeCallKind::kRead, 0, "[QueryTransmit]Invalid APDU response size (0)"},
        Step{"Response", PipeCallKind::kRead, 2, "[QueryTransmit]Failed to read APDU response"}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(Queries, WithoutPipes_FailEvenWithoutACardAndWithAnEmptyApdu) {
  pipes_.fail(PipeCallKind::kCreate, platform::error::kAccessDenied);
  start();
  ASSERT_TRUE(log_.waitFor("Failed to create command named pipe '" + commandPipeName(0) + "'"));
  log_.clear();
  forgetCalls();
  EXPECT_EQ(queryAtr(), QueryResult::kFailure);
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_EQ(transmit({}), QueryResult::kFailure);
  EXPECT_EQ(transmit(kSelect), QueryResult::kFailure);
  EXPECT_FALSE(reader().NotifyCardReady());
  EXPECT_EQ(log_.records(),
            (Records{error(kNoError, "[QueryATR]Invalid named pipe handle"),
                     error(kNoError, "[CheckATR]Invalid named pipe handle"),
                     error(kNoError, "[QueryTransmit]Invalid named pipe handle"),
                     error(kNoError, "[QueryTransmit]Invalid named pipe handle"),
                     error(kNoError, "[NotifyCardReady]Invalid named pipe handle")}));
  EXPECT_TRUE(trace().empty());
}

}  // namespace
}  // namespace zelta::test
