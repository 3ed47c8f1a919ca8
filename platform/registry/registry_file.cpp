// Not a library for INI files: those know neither an export's types and escapes nor its continued
// lines.
#include "platform/registry/registry_file.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "platform/files/utf.h"
#include "platform/registry/registry.h"

namespace zelta::platform {

namespace {

using Text = std::u16string_view;

constexpr char16_t kIdSeparator = u'\0';  // sorts before every character of a name, is in none

char16_t foldUnit(char16_t unit) {
  constexpr char16_t kDistance = u'a' - u'A';  // in Latin-1 too
  const bool isAscii = unit >= u'A' && unit <= u'Z';
  const bool isLatin1 = unit >= 0x00C0 && unit <= 0x00DE && unit != 0x00D7;  // multiplication sign
  return isAscii || isLatin1 ? static_cast<char16_t>(unit + kDistance) : unit;
}

std::u16string idOf(std::u16string_view path) {
  if (!path.empty() && path.back() == u'\\') path.remove_suffix(1);
  std::u16string id = foldName(path);
  std::replace(id.begin(), id.end(), u'\\', kIdSeparator);
  return id;
}

constexpr Text kHeader = u"Windows Registry Editor Version 5.00";
constexpr Text kBlanks = u" \t\r";
constexpr std::size_t kMaxNumberDigits = 8;
constexpr std::size_t kMaxByteDigits = 2;

Text trimmed(Text text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == Text::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

// Whether only a comment follows, if anything.
bool isEnd(Text text) {
  text = trimmed(text);
  return text.empty() || text.front() == u';';
}

// The take functions move `text` past the part they take.

bool takeUnit(char16_t unit, Text* text) {
  if (text->empty() || text->front() != unit) return false;
  text->remove_prefix(1);
  return true;
}

bool takePrefix(Text folded, Text* text) {
  if (foldName(text->substr(0, folded.size())) != folded) return false;
  text->remove_prefix(folded.size());
  return true;
}

// One to `most` hexadecimal digits.
std::optional<std::uint32_t> takeNumber(std::size_t most, Text* text) {
  constexpr Text kDigits = u"0123456789abcdefABCDEF";
  std::uint32_t number = 0;
  std::size_t count = 0;
  for (; count < std::min(most, text->size()); ++count) {
    const std::size_t digit = kDigits.find((*text)[count]);
    if (digit == Text::npos) break;
    number = number << 4 | static_cast<std::uint32_t>(digit < 16 ? digit : digit - 6);
  }
  if (count == 0) return std::nullopt;
  text->remove_prefix(count);
  return number;
}

// A text in quotation marks, with \\ and \" as escapes; on failure the position of `text` is
// unspecified.
std::optional<std::u16string> takeQuoted(Text* text) {
  if (!takeUnit(u'"', text)) return std::nullopt;
  std::u16string out;
  while (!text->empty()) {
    if (takeUnit(u'"', text)) return out;
    const bool escaped = takeUnit(u'\\', text);
    if (escaped && (text->empty() || Text(u"\\\"").find(text->front()) == Text::npos)) break;
    out.push_back(text->front());
    text->remove_prefix(1);
  }
  return std::nullopt;
}

// The value after "hex".
std::optional<RegistryValue> hexValueOf(Text text) {
  RegistryValue value;
  value.type = kRegBinary;
  if (takeUnit(u'(', &text)) {
    const std::optional<std::uint32_t> type = takeNumber(kMaxNumberDigits, &text);
    if (!type || !takeUnit(u')', &text)) return std::nullopt;
    value.type = *type;
  }
  if (!takeUnit(u':', &text)) return std::nullopt;
  while (!isEnd(text)) {
    text = trimmed(text);
    const std::optional<std::uint32_t> byte = takeNumber(kMaxByteDigits, &text);
    if (!byte) return std::nullopt;
    value.data.push_back(static_cast<std::uint8_t>(*byte));
    text = trimmed(text);
    if (!takeUnit(u',', &text) && !isEnd(text)) return std::nullopt;
  }
  return value;
}

// The value after its name and equals sign.
std::optional<RegistryValue> valueOf(Text text) {
  if (!text.empty() && text.front() == u'"') {
    const std::optional<std::u16string> quoted = takeQuoted(&text);
    if (!quoted || !isEnd(text)) return std::nullopt;
    return RegistryValue{kRegSz, registryText(*quoted)};
  }
  if (takePrefix(u"dword:", &text)) {
    text = trimmed(text);
    const std::optional<std::uint32_t> number = takeNumber(kMaxNumberDigits, &text);
    if (!number || !isEnd(text)) return std::nullopt;
    return RegistryValue{kRegDword, registryDword(*number)};
  }
  return takePrefix(u"hex", &text) ? hexValueOf(text) : std::nullopt;
}

std::u16string decodeUtf16(std::string_view bytes, bool bigEndian) {
  std::u16string out;
  out.reserve(bytes.size() / 2);
  for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
    const auto first = static_cast<unsigned char>(bytes[at]);
    const auto second = static_cast<unsigned char>(bytes[at + 1]);
    out.push_back(static_cast<char16_t>(bigEndian ? first << 8 | second : second << 8 | first));
  }
  return out;
}

std::u16string decode(std::string_view bytes) {
  if (bytes.substr(0, 2) == "\xFF\xFE") return decodeUtf16(bytes.substr(2), false);
  if (bytes.substr(0, 2) == "\xFE\xFF") return decodeUtf16(bytes.substr(2), true);
  return utf16FromUtf8(bytes.substr(0, 3) == "\xEF\xBB\xBF" ? bytes.substr(3) : bytes);
}

class Parser {
 public:
  explicit Parser(Text text) : rest_(text) {}

  RegistryContent parse(const OnSkippedLine& onSkipped) {
    while (takeLine()) {
      if (!parseLine()) onSkipped(number_, line_);
    }
    return std::move(content_);
  }

 private:
  bool takeLine() {
    if (rest_.empty()) return false;
    line_ = takePhysicalLine();
    number_ = physicalLines_;
    while (!line_.empty() && line_.back() == u'\\' && continues()) {
      line_.pop_back();
      line_ += takePhysicalLine();
    }
    return true;
  }

  Text takePhysicalLine() {
    const Text line = rest_.substr(0, rest_.find(u'\n'));
    rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
    ++physicalLines_;
    return trimmed(line);
  }

  // Whether a line that ends in a backslash continues with the next one. A line that begins
  // something else does not count as a continuation, so it is read even if the value before it is
  // unfinished.
  bool continues() const {
    const std::size_t first = rest_.find_first_not_of(kBlanks);
    return first != Text::npos && Text(u"[\"@;\n").find(rest_[first]) == Text::npos;
  }

  // The parse functions return whether they have understood the line.

  bool parseLine() {
    if (line_.empty() || line_.front() == u';') return true;
    const bool sound = line_.find(u'\0') == Text::npos;
    if (line_.front() == u'[') {
      ignoring_ = true;
      return sound && parseSection(line_);
    }
    if (ignoring_ || line_ == kHeader) return true;
    return sound && values_ != nullptr && parseValue(line_);
  }

  // The name may hold brackets itself: the section ends with the first that nothing follows.
  bool parseSection(Text text) {
    text.remove_prefix(1);
    const bool deletes = takeUnit(u'-', &text);
    for (std::size_t end = text.find(u']'); end != Text::npos; end = text.find(u']', end + 1)) {
      if (isEnd(text.substr(end + 1))) return openSection(text.substr(0, end), deletes);
    }
    return false;
  }

  bool openSection(Text path, bool deletes) {
    const std::size_t rootEnd = std::min(path.find(u'\\'), path.size());
    const std::u16string root = foldName(path.substr(0, rootEnd));
    if (root != u"hkey_local_machine" && root != u"hklm") return root.rfind(u"hkey_", 0) == 0;
    if (path.find(u"\\\\") != Text::npos) return false;  // an empty name
    path.remove_prefix(std::min(rootEnd + 1, path.size()));
    if (deletes) {
      content_.deleteKey(path);
    } else {
      values_ = &content_.createKey(path);
      ignoring_ = false;
    }
    return true;
  }

  bool parseValue(Text text) {
    const bool isDefault = takeUnit(u'@', &text);
    const std::optional<std::u16string> name = isDefault ? std::u16string() : takeQuoted(&text);
    text = trimmed(text);
    if (!name || !takeUnit(u'=', &text)) return false;
    text = trimmed(text);
    if (takeUnit(u'-', &text)) {
      if (isEnd(text)) values_->erase(foldName(*name));
      return isEnd(text);
    }
    std::optional<RegistryValue> value = valueOf(text);
    if (value) (*values_)[foldName(*name)] = std::move(*value);
    return value.has_value();
  }

  Text rest_;
  std::size_t physicalLines_ = 0;  // taken so far
  std::u16string line_;            // with the lines that continue it
  std::size_t number_ = 0;
  RegistryContent content_;
  RegistryValues* values_ = nullptr;  // in `content_`: the current key's; null before the first
  bool ignoring_ = false;             // values are skipped without a report
};

}  // namespace

std::u16string foldName(std::u16string_view name) {
  std::u16string folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(), foldUnit);
  return folded;
}

std::vector<std::uint8_t> registryText(std::u16string_view text) {
  std::vector<std::uint8_t> data;
  data.reserve((text.size() + 1) * sizeof(char16_t));
  for (const char16_t unit : text) {
    data.push_back(static_cast<std::uint8_t>(unit & 0xFF));
    data.push_back(static_cast<std::uint8_t>(unit >> 8));
  }
  data.insert(data.end(), sizeof(char16_t), 0);
  return data;
}

std::vector<std::uint8_t> registryDword(std::uint32_t value) {
  std::vector<std::uint8_t> data(sizeof(value));
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(value >> 8 * i);
  return data;
}

auto RegistryContent::subtree(const std::u16string& id) const
    -> std::pair<Keys::const_iterator, Keys::const_iterator> {
  if (id.empty()) return {keys_.begin(), keys_.end()};
  return {keys_.lower_bound(id), keys_.lower_bound(id + u'\x01')};
}

RegistryValues& RegistryContent::createKey(std::u16string_view path) { return keys_[idOf(path)]; }

void RegistryContent::deleteKey(std::u16string_view path) {
  const std::u16string id = idOf(path);
  const auto [first, last] = subtree(id);
  if (first == last) return;
  keys_.erase(first, last);
  const std::size_t parent = id.rfind(kIdSeparator);
  if (parent != std::u16string::npos) keys_.try_emplace(id.substr(0, parent));
}

bool RegistryContent::hasKey(std::u16string_view path) const {
  const std::u16string id = idOf(path);
  const auto [first, last] = subtree(id);
  return id.empty() || first != last;
}

const RegistryValue* RegistryContent::find(std::u16string_view path,
                                           std::u16string_view name) const {
  const auto key = keys_.find(idOf(path));
  if (key == keys_.end()) return nullptr;
  const auto value = key->second.find(foldName(name));
  return value == key->second.end() ? nullptr : &value->second;
}

bool RegistryContent::sameSubtree(const RegistryContent& other, std::u16string_view path) const {
  const std::u16string id = idOf(path);
  const auto [first, last] = subtree(id);
  const auto [otherFirst, otherLast] = other.subtree(id);
  return std::equal(first, last, otherFirst, otherLast);
}

RegistryContent parseRegistryFile(std::string_view bytes, const OnSkippedLine& onSkipped) {
  const std::u16string text = decode(bytes);
  return Parser(text).parse(onSkipped);
}

}  // namespace zelta::platform
