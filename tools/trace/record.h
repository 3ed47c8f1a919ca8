// Parses a line of a trace and puts it into words. Pure; no I/O.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/trace/apdu_tables.h"
#include "tools/trace/hex_text.h"

namespace zelta::trace {

// docs/trace.md has the kinds and their members.
struct Record {
  std::string kind;
  std::int64_t time = 0;      // microseconds since 1970
  std::int64_t duration = 0;  // microseconds
  HexText command;
  HexText response;
  bool masked = false;
  std::uint64_t count = 0;  // of lost records
  // From the first line of the trace:
  std::string reader;
  std::string backend;
  std::string card;
  std::string session;
  bool connected = false;
  HexText atr;

  bool isExchange() const { return kind == "transmit" || kind == "reset" || kind == "atr"; }
};

// None for a line that is not a record.
std::optional<Record> parseRecord(std::string_view line);

// A record in words.
struct Words {
  std::string what;    // "SELECT CAC key 1", "card in"
  std::string data;    // of the command; may be empty
  std::string answer;  // "9000 success"; empty if none is expected
  std::string answerData;
  bool good = true;  // the card did what was asked
  // Further details: names and values.
  std::vector<std::pair<std::string, std::string>> details;
};

// Puts the records of one trace into words, in their order: what a command means depends on the
// application that has been selected.
class Reader {
 public:
  Words describe(const Record& record);

 private:
  Words describeTransmit(const Record& record);
  // A command's description besides its name; may be empty.
  std::string subjectOf(const HexText& command, const HexText& data) const;
  void noteSelection(const HexText& command, const HexText& data, bool good);

  Edge edge_ = Edge::kIso;
};

// The command's data without header and lengths.
HexText commandData(const HexText& command);

// In UTC: 14:07:09.042.
std::string clockTime(std::int64_t microseconds);
// "850 us", "1.4 ms", "12.3 s".
std::string durationText(std::int64_t microseconds);

// The record as one line of at most `width` columns; 0 for no limit.
std::string lineOf(const Record& record, const Words& words, std::size_t width);

}  // namespace zelta::trace
