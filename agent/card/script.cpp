// No YAML library: a script is a list of short rules, one a line, and the agent for Windows is a
// single file without libraries.
#include "agent/card/script.h"

#include <algorithm>
#include <numeric>
#include <set>
#include <sstream>
#include <utility>

#include "contract/bytes.h"

namespace zelta::agent {

namespace {

constexpr std::uint8_t kSuccess1 = 0x90;
constexpr std::uint8_t kUnknownInstruction1 = 0x6D;
constexpr std::uint32_t kLongestFill = 65536;
constexpr std::size_t kLongestNumber = 9;  // digits, so that it fits 32 bits

// One line: its words, taken from the left.
class Line {
 public:
  Line(std::size_t number, const std::string& text) : number_(number) {
    std::istringstream words(text.substr(0, text.find('#')));
    for (std::string word; words >> word;) words_.push_back(word);
  }

  bool atEnd() const { return next_ == words_.size(); }
  std::string peek() const { return atEnd() ? std::string() : words_[next_]; }
  std::string take(const std::string& what) {
    if (atEnd()) fail(what + " is missing");
    return words_[next_++];
  }
  bool takeIf(const std::string& word) {
    if (peek() != word) return false;
    ++next_;
    return true;
  }
  void finish() const {
    if (!atEnd()) fail("'" + words_[next_] + "' is too much");
  }
  [[noreturn]] void fail(const std::string& problem) const { throw ScriptError(number_, problem); }

 private:
  std::size_t number_;
  std::vector<std::string> words_;
  std::size_t next_ = 0;
};

std::uint32_t takeNumber(const Line& line, const std::string& digits) {
  if (digits.empty() || digits.size() > kLongestNumber ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    line.fail("'" + digits + "' is not a number");
  }
  return static_cast<std::uint32_t>(std::stoul(digits));
}

std::chrono::milliseconds takeTime(Line& line) {
  const std::string word = line.take("a time");
  const std::size_t unit = word.find_first_not_of("0123456789");
  const std::string name = unit == std::string::npos ? "" : word.substr(unit);
  if (unit == 0 || (name != "ms" && name != "s")) {
    line.fail("'" + word + "' is not a time such as 250ms or 3s");
  }
  const std::uint32_t count = takeNumber(line, word.substr(0, unit));
  if (name == "s") return std::chrono::seconds(count);
  return std::chrono::milliseconds(count);
}

std::chrono::milliseconds takeDelay(Line& line) {
  if (!line.takeIf("after")) return std::chrono::milliseconds(0);
  return takeTime(line);
}

Bytes takeBytes(Line& line, const std::string& what) {
  std::string digits = line.take(what);
  while (!line.atEnd() && line.peek() != "after" && line.peek() != "then")
    digits += " " + line.take(what);
  const std::optional<Bytes> bytes = parseHex(digits);
  if (!bytes) line.fail("'" + digits + "' is not hexadecimal");
  return *bytes;
}

// Made at its full length: growing would leave a copy of an echoed command behind.
Bytes withSuccess(const Bytes& data) {
  Bytes response(data.size() + 2);
  std::copy(data.begin(), data.end(), response.begin());
  response[data.size()] = kSuccess1;
  return response;
}

ScriptResponse takeResponse(Line& line) {
  ScriptResponse response;
  if (line.takeIf("none")) {
    response.kind = ScriptResponse::Kind::kNone;
  } else if (line.takeIf("echo")) {
    response.kind = ScriptResponse::Kind::kEcho;
  } else if (line.takeIf("fill")) {
    const std::uint32_t length = takeNumber(line, line.take("a count of bytes"));
    if (length > kLongestFill) line.fail("more than 65536 bytes");
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    response.bytes = withSuccess(bytes);
  } else {
    response.bytes = takeBytes(line, "a response");
  }
  response.delay = takeDelay(line);
  return response;
}

// One word of a pattern: pairs of digits or question marks, "*" at the end.
void addToPattern(const Line& line, const std::string& word, CommandPattern& pattern) {
  for (std::size_t i = 0; i < word.size(); i += 2) {
    if (pattern.open) line.fail("'*' stands only at the end of a pattern");
    const std::string pair = word.substr(i, 2);
    if (pair == "*") {
      pattern.open = true;
    } else if (pair == "??") {
      pattern.bytes.push_back(std::nullopt);
    } else {
      const std::optional<Bytes> byte = pair.size() == 2 ? parseHex(pair) : std::nullopt;
      if (!byte || byte->size() != 1) line.fail("'" + word + "' is not a pattern of bytes");
      pattern.bytes.push_back(byte->front());
    }
  }
}

// The words up to one of those in `ends`, which is left.
CommandPattern takePattern(Line& line, const std::set<std::string>& ends) {
  CommandPattern pattern;
  if (line.atEnd() || ends.count(line.peek()) != 0) line.fail("a pattern is missing");
  while (!line.atEnd() && ends.count(line.peek()) == 0) {
    addToPattern(line, line.take("a pattern"), pattern);
  }
  return pattern;
}

CardAction takeAction(Line& line) {
  const std::string word = line.take("'insert' or 'remove'");
  if (word == "insert") return CardAction::kInsert;
  if (word != "remove") line.fail("'" + word + "' is neither 'insert' nor 'remove'");
  return CardAction::kRemove;
}

class Parser {
 public:
  void parse(std::size_t number, const std::string& text) {
    Line line(number, text);
    if (line.atEnd()) return;
    const std::string word = line.take("a word");
    if (word == "atr") {
      once(line, word);
      parseAtr(line);
    } else if (word == "card") {
      once(line, word);
      parseCard(line);
    } else if (word == "otherwise") {
      once(line, word);
      script_.otherwise = takeResponse(line);
      line.finish();
    } else if (word == "command") {
      parseCommand(line);
    } else if (word == "at") {
      const std::chrono::milliseconds time = takeTime(line);
      script_.timed.push_back({time, takeAction(line)});
      line.finish();
    } else if (word == "on") {
      parseTrigger(line);
    } else {
      line.fail("'" + word + "' is not a word of a script");
    }
  }

  Script finish(std::size_t lines) {
    if (seen_.count("atr") == 0) throw ScriptError(lines, "no 'atr' line up to here");
    return std::move(script_);
  }

  Parser() { script_.otherwise.bytes = {kUnknownInstruction1, 0x00}; }

 private:
  void once(const Line& line, const std::string& word) {
    if (!seen_.insert(word).second) line.fail("a second '" + word + "' line");
  }

  void parseAtr(Line& line) {
    if (line.takeIf("none")) {
      script_.atr.kind = ScriptResponse::Kind::kNone;
    } else {
      script_.atr.bytes = takeBytes(line, "an ATR");
    }
    script_.atr.delay = takeDelay(line);
    line.finish();
  }

  void parseCard(Line& line) {
    const std::string word = line.take("'in' or 'out'");
    if (word != "in" && word != "out") line.fail("'" + word + "' is neither 'in' nor 'out'");
    script_.cardIn = word == "in";
    line.finish();
  }

  void parseCommand(Line& line) {
    CommandPattern pattern = takePattern(line, {"->"});
    if (!line.takeIf("->")) line.fail("'->' is missing");
    Script::Reply reply{std::move(pattern), {}};
    do {
      reply.responses.push_back(takeResponse(line));
    } while (line.takeIf("then"));
    line.finish();
    script_.replies.push_back(std::move(reply));
  }

  void parseTrigger(Line& line) {
    Script::Trigger trigger{};
    if (line.takeIf("reset")) {
      trigger.on = Script::Trigger::On::kReset;
    } else if (line.takeIf("atr")) {
      trigger.on = Script::Trigger::On::kAtr;
    } else if (line.takeIf("ready")) {
      trigger.on = Script::Trigger::On::kReady;
    } else {
      trigger.on = Script::Trigger::On::kCommand;
      trigger.pattern = takePattern(line, {"insert", "remove"});
    }
    trigger.action = takeAction(line);
    trigger.delay = takeDelay(line);
    line.finish();
    script_.triggers.push_back(std::move(trigger));
  }

  Script script_;
  std::set<std::string> seen_;
};

}  // namespace

bool CommandPattern::matches(const Bytes& command) const {
  if (open ? command.size() < bytes.size() : command.size() != bytes.size()) return false;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] && *bytes[i] != command[i]) return false;
  }
  return true;
}

Bytes ScriptResponse::to(const Bytes& command) const {
  return kind == Kind::kEcho ? withSuccess(command) : bytes;
}

const ScriptResponse& Script::responseTo(const Bytes& command) {
  for (Reply& reply : replies) {
    if (reply.pattern.matches(command)) {
      return reply.responses[reply.given++ % reply.responses.size()];
    }
  }
  return otherwise;
}

Script parseScript(const std::string& text) {
  Parser parser;
  std::istringstream lines(text);
  std::size_t number = 0;
  for (std::string line; std::getline(lines, line);) parser.parse(++number, line);
  return parser.finish(number);
}

}  // namespace zelta::agent
