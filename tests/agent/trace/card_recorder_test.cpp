#include "agent/trace/card_recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "agent/card/script.h"
#include "tests/agent/running_agent.h"
#include "tests/support/system.h"
#include "tests/support/temp_folder.h"

namespace zelta::agent {
namespace {

using Kind = TraceRecord::Kind;
using testing::HasSubstr;

Bytes bytes(const std::string& digits) { return parseHex(digits).value(); }

TraceRecord atr(const std::string& digits) {
  TraceRecord record;
  record.kind = Kind::kReset;
  record.response = bytes(digits);
  return record;
}

TraceRecord exchange(const std::string& command, const std::string& response) {
  TraceRecord record;
  record.kind = Kind::kTransmit;
  record.command = bytes(command);
  record.response = bytes(response);
  SecretMask mask;
  mask.look({}, {});  // no secret came before
  record.hidden = mask.look(record.command.get(), record.response.get());
  return record;
}

std::string textOf(const std::vector<TraceRecord>& records) {
  ScriptText script;
  for (const TraceRecord& record : records) script.add(record);
  const std::string text = script.text();
  return text.substr(text.find('\n') + 1);  // without the comment
}

TEST(ScriptText, CommandsAreAnsweredInTheOrderOfTheirResponses) {
  EXPECT_EQ(textOf({atr(""), atr("3B00"), exchange("00A4", "9000"), exchange("00C0", "6102"),
                    exchange("00A4", "9000"), exchange("00C0", "AA9000"), exchange("00B0", ""),
                    atr("3B01")}),
            "atr 3B00\n"
            "command 00A4 -> 9000\n"
            "command 00C0 -> 6102 then AA9000\n"
            "command 00B0 -> none\n");
}

TEST(ScriptText, SecretsAreMasked_AndAskingForTheStateIsNotTakenForAPin) {
  EXPECT_EQ(textOf({exchange("0020008001FF", "9000"), exchange("00200080", "63C3"),
                    exchange("0020008001FE", "63C2"), exchange("8042000000", "AABB9000")}),
            "atr none\n"
            "command 00200080 -> 63C3\n"
            "command 8042000000 -> 00009000  # masked\n"
            "command 00200080 * -> 9000 then 63C2\n");
}

TEST(ScriptText, TextOfRecords_IsReadBackAsAScript) {
  ScriptText text;
  for (const TraceRecord& record :
       {atr("3B00"), exchange("0020008001FF", "9000"), exchange("00C0", "6102"),
        exchange("00C0", "AA9000"), exchange("00", "")}) {
    text.add(record);
  }
  Script script = parseScript(text.text());
  EXPECT_EQ(script.atr.bytes, bytes("3B00"));
  EXPECT_EQ(script.responseTo(bytes("002000800211")).bytes, bytes("9000"));
  EXPECT_EQ(script.responseTo(bytes("00C0")).bytes, bytes("6102"));
  EXPECT_EQ(script.responseTo(bytes("00C0")).bytes, bytes("AA9000"));
  EXPECT_EQ(script.responseTo(bytes("00")).to({}), Bytes());
}

class Recorder : public testing::Test {
 protected:
  std::string written() const {
    std::ostringstream text;
    text << std::ifstream(file_).rdbuf();
    return text.str();
  }

  test::TempFolder folder_;
  const std::string file_ = folder_.file("card.txt");
  test::LogLines lines_;
  Log log_{Severity::kDebug, lines_.sink()};
};

TEST_F(Recorder, ScriptIsThereFromTheStartOn_AndWrittenWhenTheCardLeavesAndAtTheEnd) {
  {
    CardRecorder recorder(file_, log_);
    EXPECT_THAT(written(), HasSubstr("atr none\n"));
    recorder.take(exchange("00A4", "9000"));
    TraceRecord removal;
    removal.kind = Kind::kRemove;
    recorder.take(removal);
    EXPECT_THAT(written(), HasSubstr("command 00A4 -> 9000\n"));
    recorder.take(exchange("00B0", "6A82"));
  }
  EXPECT_THAT(written(), HasSubstr("command 00B0 -> 6A82\n"));
}

TEST_F(Recorder, UnfinishedFileThatSomebodyHasOpen_IsNotWrittenTo) {
  std::ofstream(file_ + "~").close();
  std::ifstream reader(file_ + "~");
  const auto record = [&] { CardRecorder(file_, log_); };
  if (test::kOpenFilesCanBeRemoved) {
    record();
    EXPECT_THAT(written(), HasSubstr("atr none\n"));
  } else {
    EXPECT_THROW(record(), std::runtime_error);
  }
  EXPECT_EQ(reader.get(), std::ifstream::traits_type::eof());
}

TEST_F(Recorder, FileThatCannotBeWritten_IsRefused) {
  const std::string file = folder_.file("none/card.txt");
  EXPECT_THAT([&] { CardRecorder(file, log_); },
              testing::ThrowsMessage<std::runtime_error>("the recorded script " + file +
                                                         " cannot be written"));
}

TEST_F(Recorder, FileThatCannotBeWrittenAnyMore_IsToldOnce) {
  const std::string sub = folder_.file("sub");
  std::filesystem::create_directory(sub);
  CardRecorder recorder(sub + "/card.txt", log_);
  std::filesystem::remove_all(sub);
  TraceRecord removal;
  removal.kind = Kind::kRemove;
  recorder.take(removal);
  recorder.take(removal);
  EXPECT_EQ(lines_.count("cannot be written"), 1u);
}

}  // namespace
}  // namespace zelta::agent
