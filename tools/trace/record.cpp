#include "tools/trace/record.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "contract/bytes.h"
#include "contract/harmless.h"
#include "tools/trace/agent_json.h"
#include "tools/trace/atr.h"

namespace zelta::trace {

namespace {

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kLengthAt = 4;
constexpr std::size_t kShortDataAt = 5;
constexpr std::size_t kExtendedDataAt = 7;
constexpr std::size_t kStatusSize = 2;
constexpr std::uint8_t kSelect = 0xA4;
constexpr std::uint8_t kSelectByName = 0x04;
constexpr std::uint8_t kVerify = 0x20;
constexpr std::uint8_t kChangeReference = 0x24;
constexpr std::uint8_t kResetRetryCounter = 0x2C;
constexpr std::uint8_t kGetDataByTag = 0xCA;
constexpr std::uint8_t kGetData = 0xCB;
constexpr std::uint8_t kPutDataByTag = 0xDA;
constexpr std::uint8_t kTagList = 0x5C;
constexpr std::size_t kShownBytes = 16;

struct Event {
  const char* kind;
  const char* text;
};
constexpr Event kEvents[] = {
    {"insert", "card in"},
    {"remove", "card out"},
    {"connect", "driver connected, session begins"},
    {"disconnect", "driver gone, session ends"},
    {"ready", "card in use"},
    {"late", "card late, answered in its place"},
    {"reset", "reset"},
    {"atr", "ATR"},
};

std::int64_t numberOf(const Json& object, const char* name) {
  return std::strtoll(textOf(object, name).c_str(), nullptr, 10);
}

bool isHexText(const std::string& digits) {
  return digits.size() % 2 == 0 && std::all_of(digits.begin(), digits.end(),
                                               [](char c) { return c == '*' || hexDigit(c) >= 0; });
}

std::string counted(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

void addDetail(Words& words, const char* name, const std::string& value) {
  if (!value.empty()) words.details.emplace_back(name, value);
}

void addBytes(Words& words, const char* name, const HexText& bytes) {
  if (!bytes.empty()) addDetail(words, name, bytes.digits() + " (" + counted(bytes.size()) + ")");
}

void addAtr(Words& words, const HexText& atr) {
  const std::optional<Bytes> bytes = parseHex(atr.digits());
  if (!bytes || bytes->empty()) return;
  for (const auto& [name, value] : describeAtr(*bytes)) addDetail(words, name.c_str(), value);
}

}  // namespace

std::optional<Record> parseRecord(std::string_view line) {
  const Json object = parseObject(line);
  if (!object.contains("time_us") || !object.contains("kind")) return std::nullopt;
  Record record;
  record.kind = textOf(object, "kind");
  record.time = numberOf(object, "time_us");
  record.duration = std::max<std::int64_t>(numberOf(object, "duration_us"), 0);
  record.masked = textOf(object, "masked") == "true";
  record.count = static_cast<std::uint64_t>(numberOf(object, "count"));
  record.reader = textOf(object, "reader");
  record.backend = textOf(object, "backend");
  record.card = textOf(object, "card");
  record.session = textOf(object, "session_id");
  record.connected = textOf(object, "connected") == "true";
  for (const auto& [name, bytes] :
       {std::pair("command", &record.command), std::pair("response", &record.response),
        std::pair("atr", &record.atr)}) {
    const std::string digits = textOf(object, name);
    if (!isHexText(digits)) return std::nullopt;
    *bytes = HexText(digits);
  }
  return record;
}

HexText commandData(const HexText& command) {
  if (command.size() <= kShortDataAt) return {};
  const std::optional<std::uint8_t> length = command.byte(kLengthAt);
  if (!length) return command.part(kLengthAt, command.size());
  const bool extended = *length == 0 && command.size() > kExtendedDataAt;
  if (!extended) return command.part(kShortDataAt, *length);
  return command.part(kExtendedDataAt, command.word(kShortDataAt).value_or(0));
}

Words Reader::describe(const Record& record) {
  if (record.kind == "transmit") return describeTransmit(record);
  Words words;
  const auto* const event =
      std::find_if(std::begin(kEvents), std::end(kEvents),
                   [&record](const Event& known) { return record.kind == known.kind; });
  words.what = event == std::end(kEvents) ? harmless(record.kind) : event->text;
  if (record.kind == "begin") {
    words.what = "reader " + harmless(record.reader) + ", " + harmless(record.backend) + " card " +
                 harmless(record.card) + ", driver " +
                 (record.connected ? "connected" : "not connected");
    addDetail(words, "Session", harmless(record.session));
    addBytes(words, "ATR", record.atr);
    addAtr(words, record.atr);
  } else if (record.kind == "lost") {
    words.what = std::to_string(record.count) + " records lost: this reader is too slow";
    words.good = false;
  } else if (record.kind == "late") {
    words.good = false;
    addBytes(words, "Command", record.command);
  } else if (record.isExchange()) {
    words.good = !record.response.empty();
    words.answer = words.good ? "" : "no answer";
    words.answerData = record.response.digits();
    addBytes(words, "ATR", record.response);
    addAtr(words, record.response);
  }
  if (record.kind == "reset" || record.kind == "remove") edge_ = Edge::kIso;
  return words;
}

Words Reader::describeTransmit(const Record& record) {
  const HexText& command = record.command;
  const HexText& response = record.response;
  Words words;
  const HexText data = commandData(command);
  const std::optional<std::uint8_t> classByte = command.byte(0);
  const std::optional<std::uint16_t> parameters = command.word(2);
  const bool isApdu = command.size() >= kHeaderSize && classByte && command.byte(1) && parameters;
  if (isApdu) {
    words.what = instructionName(edge_, *command.byte(1), *parameters);
    const std::string subject = subjectOf(command, data);
    if (!subject.empty()) words.what += " " + subject;
    addDetail(words, "Class", toHex({*classByte}) + " " + className(*classByte));
    addDetail(
        words, "Instruction",
        command.part(1, 1).digits() + " " + instructionName(edge_, *command.byte(1), *parameters));
    addDetail(words, "P1 P2", command.part(2, 2).digits());
  } else {
    words.what = "not an APDU";
  }
  words.data = data.digits();
  addBytes(words, "Command data", data);
  addBytes(words, "Command", command);
  const std::optional<std::uint16_t> status =
      response.size() < kStatusSize ? std::nullopt : response.word(response.size() - kStatusSize);
  words.good = status && isSuccess(*status);
  if (status) {
    const HexText answered = response.part(0, response.size() - kStatusSize);
    words.answer = response.part(response.size() - kStatusSize, kStatusSize).digits() + " " +
                   statusName(*status);
    words.answerData = answered.digits();
    addDetail(words, "Status", words.answer);
    addBytes(words, "Response data", answered);
  } else {
    words.answer = response.empty() ? "no answer" : "no status word";
    addDetail(words, "Status", words.answer);
  }
  addBytes(words, "Response", response);
  if (isApdu) noteSelection(command, data, words.good);
  addDetail(words, "Application", edgeName(edge_));
  if (record.masked) addDetail(words, "Masked", "** stands for a byte of a secret");
  return words;
}

std::string Reader::subjectOf(const HexText& command, const HexText& data) const {
  const std::uint8_t instruction = *command.byte(1);
  const std::uint16_t parameters = *command.word(2);
  const auto low = static_cast<std::uint8_t>(parameters);
  switch (instruction) {
    case kSelect: {
      const Application* const known =
          parameters >> 8 == kSelectByName ? findApplication(data.digits()) : nullptr;
      return known == nullptr ? std::string() : known->name;
    }
    case kVerify:
    case kChangeReference:
    case kResetRetryCounter:
      return referenceName(edge_, low);
    case kGetDataByTag:
    case kPutDataByTag:
      return objectName(edge_, command.part(2, 2).digits());
    case kGetData:
      return data.byte(0) == kTagList
                 ? objectName(edge_, data.part(2, data.byte(1).value_or(0)).digits())
                 : std::string();
    default:
      return {};
  }
}

void Reader::noteSelection(const HexText& command, const HexText& data, bool good) {
  if (!good || command.byte(1) != kSelect || command.byte(2) != kSelectByName) return;
  const Application* const known = findApplication(data.digits());
  edge_ = known == nullptr ? Edge::kIso : known->edge;
}

std::string clockTime(std::int64_t microseconds) {
  constexpr std::int64_t kDay = std::int64_t{24} * 60 * 60 * 1000;
  const std::int64_t milliseconds = ((microseconds / 1000) % kDay + kDay) % kDay;
  char text[16];
  (void)std::snprintf(
      text, sizeof text, "%02d:%02d:%02d.%03d", static_cast<int>(milliseconds / 3600000),
      static_cast<int>(milliseconds / 60000 % 60), static_cast<int>(milliseconds / 1000 % 60),
      static_cast<int>(milliseconds % 1000));
  return text;
}

std::string durationText(std::int64_t microseconds) {
  constexpr std::int64_t kMillisecond = 1000;
  constexpr std::int64_t kSecond = 1000000;
  char text[32];
  if (microseconds < kMillisecond) {
    (void)std::snprintf(text, sizeof text, "%d us", static_cast<int>(microseconds));
  } else if (microseconds < kSecond) {
    (void)std::snprintf(text, sizeof text, "%.1f ms",
                        static_cast<double>(microseconds) / kMillisecond);
  } else {
    (void)std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(microseconds) / kSecond);
  }
  return text;
}

std::string lineOf(const Record& record, const Words& words, std::size_t width) {
  const auto data = [](const std::string& digits) {
    const HexText bytes(digits);
    if (bytes.empty()) return std::string();
    return " [" + std::to_string(bytes.size()) + "] " + bytes.shortened(kShownBytes);
  };
  char begin[64];
  const std::string lasted = record.isExchange() ? durationText(record.duration) : "";
  (void)std::snprintf(begin, sizeof begin, "%s %8s  ", clockTime(record.time).c_str(),
                      lasted.c_str());
  std::string line = begin;
  if (!record.isExchange()) {
    line += "-- " + words.what;
    if (!record.command.empty()) line += " " + record.command.digits();
  } else {
    const std::optional<std::uint8_t> classByte = record.command.byte(0);
    line += "> ";
    if (record.kind == "transmit" && classByte) line += className(*classByte) + " ";
    line += words.what + data(words.data) + " <";
    if (!words.answer.empty()) line += " " + words.answer;
    line += data(words.answerData);
  }
  if (width != 0 && line.size() > width) {
    constexpr std::size_t kDots = 3;
    line.resize(width > kDots ? width - kDots : 0);
    line += "...";
  }
  return line;
}

}  // namespace zelta::trace
