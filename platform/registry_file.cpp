#include "platform/registry_file.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "platform/identity_hash.h"
#include "platform/registry.h"
#include "platform/utf.h"

namespace zelta::platform {

namespace {

using Text = std::u16string_view;

constexpr Text kHeader = u"windows registry editor version 5.00";
constexpr Text kLocalMachine[] = {u"hkey_local_machine", u"hklm"};
constexpr Text kOtherRoots[] = {
    u"hkey_classes_root",   u"hkcr", u"hkey_current_user",     u"hkcu", u"hkey_users",    u"hku",
    u"hkey_current_config", u"hkcc", u"hkey_performance_data", u"hkpd", u"hkey_dyn_data", u"hkdd"};

// The registry's own limits.
constexpr std::size_t kMaxKeyName = 255;
constexpr std::size_t kMaxDepth = 512;
constexpr std::size_t kMaxValueName = 16383;

constexpr std::size_t kMaxDwordDigits = 8;
constexpr std::size_t kMaxTypeDigits = 8;
constexpr std::size_t kMaxByteDigits = 2;

bool isBlank(char16_t unit) { return unit == u' ' || unit == u'\t'; }

Text withoutLeadingBlanks(Text text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  return text;
}

Text withoutTrailingBlanks(Text text) {
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

// What may stand behind the data of a line.
bool isBlankOrComment(Text rest) {
  rest = withoutLeadingBlanks(rest);
  return rest.empty() || rest.front() == u';';
}

bool takePrefix(Text prefix, Text* text) {
  if (text->size() < prefix.size() || foldName(text->substr(0, prefix.size())) != prefix) {
    return false;
  }
  text->remove_prefix(prefix.size());
  return true;
}

bool takeUnit(char16_t unit, Text* text) {
  if (text->empty() || text->front() != unit) return false;
  text->remove_prefix(1);
  return true;
}

int digitOf(char16_t unit) {
  if (unit >= u'0' && unit <= u'9') return unit - u'0';
  if (unit >= u'a' && unit <= u'f') return unit - u'a' + 10;
  if (unit >= u'A' && unit <= u'F') return unit - u'A' + 10;
  return -1;
}

// One to `most` hexadecimal digits.
std::optional<std::uint32_t> takeNumber(std::size_t most, Text* text) {
  std::uint32_t number = 0;
  std::size_t digits = 0;
  while (digits < text->size() && digits < most && digitOf((*text)[digits]) >= 0) {
    number = number * 16 + static_cast<std::uint32_t>(digitOf((*text)[digits++]));
  }
  if (digits == 0) return std::nullopt;
  text->remove_prefix(digits);
  return number;
}

// A text in quotation marks, with \\ and \" for the two that need it.
std::optional<std::u16string> takeQuoted(Text* text) {
  if (!takeUnit(u'"', text)) return std::nullopt;
  std::u16string out;
  while (!text->empty()) {
    char16_t unit = text->front();
    text->remove_prefix(1);
    if (unit == u'"') return out;
    if (unit == u'\\') {
      if (text->empty() || (text->front() != u'\\' && text->front() != u'"')) return std::nullopt;
      unit = text->front();
      text->remove_prefix(1);
    }
    out.push_back(unit);
  }
  return std::nullopt;
}

bool isKeyPath(Text path) {
  std::size_t depth = 1;
  std::size_t length = 0;
  for (const char16_t unit : path) {
    if (unit != u'\\') {
      if (++length > kMaxKeyName) return false;
    } else {
      if (length == 0 || ++depth > kMaxDepth) return false;
      length = 0;
    }
  }
  return length != 0;
}

std::u16string decodeUtf16(std::string_view bytes, bool bigEndian) {
  std::u16string out;
  out.reserve(bytes.size() / 2 + 1);
  for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
    const auto first = static_cast<unsigned char>(bytes[at]);
    const auto second = static_cast<unsigned char>(bytes[at + 1]);
    out.push_back(static_cast<char16_t>(bigEndian ? first << 8 | second : second << 8 | first));
  }
  if (bytes.size() % 2 != 0) out.push_back(kReplacementCharacter);
  return out;
}

std::u16string decode(std::string_view bytes) {
  constexpr std::string_view utf8Mark = "\xEF\xBB\xBF";
  constexpr std::string_view littleEndianMark = "\xFF\xFE";
  constexpr std::string_view bigEndianMark = "\xFE\xFF";
  const auto startsWith = [bytes](std::string_view mark) {
    return bytes.substr(0, mark.size()) == mark;
  };
  if (startsWith(littleEndianMark)) return decodeUtf16(bytes.substr(2), false);
  if (startsWith(bigEndianMark)) return decodeUtf16(bytes.substr(2), true);
  return utf16FromUtf8(startsWith(utf8Mark) ? bytes.substr(utf8Mark.size()) : bytes);
}

class Parser {
 public:
  explicit Parser(Text text) : rest_(text) {}

  ParsedRegistry parse();

 private:
  // Where the values that follow belong.
  enum class Place {
    kNone,     // no key: they are not understood
    kKey,      // to `values_`
    kIgnored,  // to another root's key or to one that was not understood: they go unmentioned
  };

  bool takeLine();
  void parseLine();
  bool parseSection(Text text);
  bool openSection(Text path, bool deletes);
  bool parseValue(Text text);
  bool parseData(std::u16string name, Text text);
  bool parseHex(std::u16string name, Text text);
  std::optional<bool> takeBytes(Text text, std::vector<std::uint8_t>* data);
  bool takeContinuation();
  void skipContinuation();
  void store(std::u16string name, std::uint32_t type, std::vector<std::uint8_t> data);
  void report(std::size_t number, Text line);

  Text rest_;
  Text line_;  // without its end
  std::size_t number_ = 0;
  bool lineIsPending_ = false;  // the line taken last is to be taken once more
  Place place_ = Place::kNone;
  RegistryValues* values_ = nullptr;  // in `result_`
  ParsedRegistry result_;
};

bool Parser::takeLine() {
  if (std::exchange(lineIsPending_, false)) return true;
  if (rest_.empty()) return false;
  const std::size_t end = std::min(rest_.find_first_of(u"\r\n"), rest_.size());
  line_ = rest_.substr(0, end);
  rest_.remove_prefix(end);
  if (takeUnit(u'\r', &rest_)) {
    takeUnit(u'\n', &rest_);
  } else {
    takeUnit(u'\n', &rest_);
  }
  ++number_;
  return true;
}

void Parser::parseLine() {
  const std::size_t number = number_;
  const Text line = line_;
  const Text text = withoutLeadingBlanks(line);
  if (text.empty() || text.front() == u';') return;
  bool understood = false;
  if (text.find(u'\0') != Text::npos) {
    if (text.front() == u'[') place_ = Place::kIgnored;
  } else if (text.front() == u'[') {
    understood = parseSection(text);
    if (!understood) place_ = Place::kIgnored;
  } else if (text.front() == u'"' || text.front() == u'@') {
    understood = parseValue(text) || place_ == Place::kIgnored;
  } else {
    understood = foldName(withoutTrailingBlanks(text)) == kHeader || place_ == Place::kIgnored;
  }
  if (!understood) report(number, line);
}

// The name may hold brackets itself: the section ends with the first that nothing follows.
bool Parser::parseSection(Text text) {
  text.remove_prefix(1);
  const bool deletes = takeUnit(u'-', &text);
  for (std::size_t end = text.find(u']'); end != Text::npos; end = text.find(u']', end + 1)) {
    if (isBlankOrComment(text.substr(end + 1))) return openSection(text.substr(0, end), deletes);
  }
  return false;
}

bool Parser::openSection(Text path, bool deletes) {
  const std::size_t rootEnd = std::min(path.find(u'\\'), path.size());
  const std::u16string root = foldName(path.substr(0, rootEnd));
  const auto isRoot = [&root](Text name) { return name == root; };
  path.remove_prefix(std::min(rootEnd + 1, path.size()));
  if (std::any_of(std::begin(kOtherRoots), std::end(kOtherRoots), isRoot)) {
    place_ = Place::kIgnored;
    return true;
  }
  if (std::none_of(std::begin(kLocalMachine), std::end(kLocalMachine), isRoot)) return false;
  if (path.size() > 1 && path.back() == u'\\') path.remove_suffix(1);
  const bool valid = path.empty() ? !deletes : isKeyPath(path);
  if (!valid) return false;
  if (deletes) {
    result_.content.deleteKey(path);
    place_ = Place::kNone;
  } else {
    values_ = &result_.content.createKey(path);
    place_ = Place::kKey;
  }
  return true;
}

bool Parser::parseValue(Text text) {
  std::optional<std::u16string> name;
  if (takeUnit(u'@', &text)) {
    name.emplace();
  } else {
    name = takeQuoted(&text);
    if (!name || name->size() > kMaxValueName) return false;
  }
  text = withoutLeadingBlanks(text);
  if (!takeUnit(u'=', &text)) return false;
  return parseData(foldName(*name), withoutLeadingBlanks(text));
}

bool Parser::parseData(std::u16string name, Text text) {
  if (text.empty()) return false;
  if (text.front() == u'"') {
    const std::optional<std::u16string> value = takeQuoted(&text);
    if (!value || !isBlankOrComment(text)) return false;
    store(std::move(name), kRegSz, registryText(*value));
    return place_ == Place::kKey;
  }
  if (takeUnit(u'-', &text)) {
    if (!isBlankOrComment(text)) return false;
    if (place_ == Place::kKey) values_->erase(name);
    return place_ == Place::kKey;
  }
  if (takePrefix(u"dword:", &text)) {
    text = withoutLeadingBlanks(text);
    const std::optional<std::uint32_t> value = takeNumber(kMaxDwordDigits, &text);
    if (!value || !isBlankOrComment(text)) return false;
    store(std::move(name), kRegDword, registryDword(*value));
    return place_ == Place::kKey;
  }
  return takePrefix(u"hex", &text) && parseHex(std::move(name), text);
}

bool Parser::parseHex(std::u16string name, Text text) {
  std::uint32_t type = kRegBinary;
  if (takeUnit(u'(', &text)) {
    const std::optional<std::uint32_t> number = takeNumber(kMaxTypeDigits, &text);
    if (!number || !takeUnit(u')', &text)) return false;
    type = *number;
  }
  if (!takeUnit(u':', &text)) return false;
  std::vector<std::uint8_t> data;
  for (;;) {
    const std::optional<bool> continues = takeBytes(text, &data);
    if (!continues) {
      skipContinuation();
      return false;
    }
    if (!*continues) break;
    if (!takeContinuation()) return false;
    text = line_;
  }
  store(std::move(name), type, std::move(data));
  return place_ == Place::kKey;
}

// A line's bytes, separated by commas: true where the next line goes on, nothing where it is not
// understood.
std::optional<bool> Parser::takeBytes(Text text, std::vector<std::uint8_t>* data) {
  for (;;) {
    text = withoutLeadingBlanks(text);
    if (isBlankOrComment(text)) return false;
    if (takeUnit(u'\\', &text)) {
      if (!isBlankOrComment(text)) return std::nullopt;
      return true;
    }
    const std::optional<std::uint32_t> byte = takeNumber(kMaxByteDigits, &text);
    if (!byte) return std::nullopt;
    data->push_back(static_cast<std::uint8_t>(*byte));
    text = withoutLeadingBlanks(text);
    if (!takeUnit(u',', &text) && !isBlankOrComment(text)) return std::nullopt;
  }
}

// The next line of a value. A line that begins something else is none: it is left for the parser,
// so that the rest of the file stands.
bool Parser::takeContinuation() {
  if (!takeLine()) return false;
  const Text text = withoutLeadingBlanks(line_);
  lineIsPending_ = !text.empty() && Text(u"[\"@").find(text.front()) != Text::npos;
  return !lineIsPending_;
}

// Passes over what is left of a value that was not understood.
void Parser::skipContinuation() {
  for (;;) {
    const Text line = withoutTrailingBlanks(line_);
    if (line.empty() || line.back() != u'\\' || !takeContinuation()) return;
  }
}

void Parser::store(std::u16string name, std::uint32_t type, std::vector<std::uint8_t> data) {
  if (place_ != Place::kKey) return;
  RegistryValue& value = (*values_)[std::move(name)];
  value.type = type;
  value.data = std::move(data);
}

void Parser::report(std::size_t number, Text line) {
  ++result_.skippedCount;
  if (result_.skipped.size() == ParsedRegistry::kListedLines) return;
  result_.skipped.push_back({number, identityHash(line)});
}

ParsedRegistry Parser::parse() {
  while (takeLine()) parseLine();
  return std::move(result_);
}

}  // namespace

ParsedRegistry parseRegistryFile(std::string_view bytes) {
  const std::u16string text = decode(bytes);
  return Parser(text).parse();
}

}  // namespace zelta::platform
