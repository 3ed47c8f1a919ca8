// Shows any bytes as a log in every format, and checks what must always hold. Shared by the fuzzer
// and by the test that plays its corpus.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/byte_dump.h"
#include "tests/support/fuzz_input.h"
#include "tools/logs/dump_mask.h"
#include "tools/logs/printer.h"
#include "tools/logs/record.h"

namespace zelta::test {

inline bool isPart(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

inline void checkRecord(std::string_view line) {
  const auto record = logs::parseRecord(line);
  if (!record) return;
  for (const std::string_view part :
       {record->thread, record->time, record->session, record->message}) {
    require(isPart(part, line), "a record is made of its line");
  }
  require(record->message.empty() ||
              record->message.data() + record->message.size() == line.data() + line.size(),
          "a message goes to the end of its line");
  require(!logs::isHeader(line), "a record is no header");
  require(logs::parseSince(record->time, 0) == std::string(record->time.substr(0, 23)),
          "a record's time is one to compare with");
}

// False if a terminal would obey any part of the text.
inline bool isHarmless(std::string_view text) {
  static constexpr std::string_view kTurning[] = {"\xD8\x9C",     "\xE2\x80\x8E", "\xE2\x80\x8F",
                                                  "\xE2\x80\xAA", "\xE2\x80\xAB", "\xE2\x80\xAC",
                                                  "\xE2\x80\xAD", "\xE2\x80\xAE", "\xE2\x81\xA6",
                                                  "\xE2\x81\xA7", "\xE2\x81\xA8", "\xE2\x81\xA9"};
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(text[i]);
    if ((byte < ' ' && byte != '\t') || byte == 0x7F) return false;
    if (byte == 0xC2 && i + 1 < text.size() && static_cast<std::uint8_t>(text[i + 1]) < 0xA0) {
      return false;
    }
  }
  return std::none_of(std::begin(kTurning), std::end(kTurning),
                      [text](std::string_view each) { return text.find(each) != text.npos; });
}

// The text without its colour, if it has one.
inline std::string_view plain(std::string_view shown) {
  static constexpr std::string_view kEnd = "\x1b[0m";
  if (shown.substr(0, 2) != "\x1b[") return shown;
  shown.remove_prefix(std::min(shown.find('m') + 1, shown.size()));
  require(shown.size() >= kEnd.size() && shown.substr(shown.size() - kEnd.size()) == kEnd,
          "a colour ends with its line");
  return shown.substr(0, shown.size() - kEnd.size());
}

// Checks the lines of a log in one format.
inline void checkLook(const std::vector<std::string>& lines, logs::Filter filter, logs::Look look) {
  const bool isPlain = !look.color && !look.escape;
  std::size_t shownLines = 0;
  std::string_view current;
  logs::Printer printer(std::move(filter), look, [&](std::string_view shown) {
    ++shownLines;
    if (look.escape) require(isHarmless(plain(shown)), "a terminal obeys nothing of a log");
    if (!isPlain) return;
    require(shown.size() == current.size(), "what is hidden leaves its place");
    for (std::size_t i = 0; i < shown.size(); ++i) {
      require(shown[i] == current[i] || (shown[i] == '.' && !look.secrets),
              "what is not hidden is shown as it is");
    }
  });
  for (const std::string& line : lines) {
    current = line;
    const std::size_t before = shownLines;
    printer.print(line, "log");
    require(shownLines <= before + 1, "a line is shown once");
  }
}

// Checks which bytes of a driver's dump are shown.
inline void checkDump(const Bytes& command) {
  static constexpr std::uint8_t kPins[] = {0x20, 0x21, 0x24, 0x25, 0x26,
                                           0x27, 0x28, 0x29, 0x2C, 0x2D};
  static constexpr std::size_t kMostHead = 7;  // an extended length and what is before it
  static constexpr std::size_t kMostTail = 2;  // the length of what is expected
  constexpr std::uint64_t kPerLine = 16;
  constexpr std::size_t kShortest = 5;
  const bool secret =
      command.size() > kShortest && std::count(std::begin(kPins), std::end(kPins), command[1]) != 0;
  logs::DumpMask mask;
  const std::string begin = std::to_string(command.size()) + " byte dump:";
  require(mask.masked("1", begin) == begin, "a dump's beginning is shown");
  for (std::uint64_t line = 0; line < byteDumpLineCount(command.size(), kPerLine); ++line) {
    const std::string text = byteDumpLine(command.data(), command.size(), kPerLine, line);
    const std::string shown = mask.masked("1", text);
    require(shown.size() == text.size(), "what is hidden leaves its place");
    for (std::size_t i = 0; i < text.size() / 3; ++i) {
      const std::size_t at = line * kPerLine + i;
      const bool hidden = shown.substr(3 * i, 3) == ".. ";
      require(hidden || shown.substr(3 * i, 3) == text.substr(3 * i, 3), "a byte is shown or not");
      require(!hidden || (secret && at >= kShortest), "only a PIN command's data is hidden");
      require(hidden || !secret || at < kMostHead || at + kMostTail >= command.size(),
              "a PIN command's data is hidden");
    }
  }
}

// A byte for the level, lines with the tag, the session and the time to filter by, and the log.
inline void playAnyLog(const std::uint8_t* data, std::size_t size) {
  checkDump(Bytes(data, data + size));
  FuzzInput input(data, size);
  logs::Filter filter;
  filter.level = static_cast<logs::Level>(input.byte() % logging::kLevelTags.size());
  if (const std::string tag = input.text('\n'); !tag.empty()) filter.tags.push_back(tag);
  filter.session = input.text('\n');
  const std::string since = input.text('\n');
  filter.since = logs::parseSince(since, 1'700'000'000).value_or("");
  (void)logs::parseSize(since);
  std::vector<std::string> lines;
  while (!input.atEnd()) lines.push_back(input.text('\n'));
  for (const std::string& line : lines) checkRecord(line);
  for (unsigned look = 0; look < 8; ++look) {
    checkLook(lines, {}, {(look & 1) != 0, (look & 2) != 0, (look & 4) != 0});
  }
  checkLook(lines, filter, {});
}

}  // namespace zelta::test
