#include "contract/json.h"

#include <cstddef>
#include <cstdint>

#include "contract/bytes.h"

namespace zelta {

namespace {

constexpr std::size_t kEscapeDigits = 4;
constexpr std::uint32_t kOneByteEnd = 0x80;  // of UTF-8
constexpr std::uint32_t kTwoBytesEnd = 0x800;

void appendUtf8(std::uint32_t code, std::string& text) {
  const auto add = [&text](std::uint32_t byte) { text += static_cast<char>(byte); };
  if (code < kOneByteEnd) {
    add(code);
  } else if (code < kTwoBytesEnd) {
    add(0xC0 | code >> 6);
    add(0x80 | (code & 0x3F));
  } else {
    add(0xE0 | code >> 12);
    add(0x80 | (code >> 6 & 0x3F));
    add(0x80 | (code & 0x3F));
  }
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::optional<JsonObject> readObject() {
    JsonObject object;
    if (!take('{')) return std::nullopt;
    if (!take('}')) {
      do {
        const std::optional<std::string> name = readText();
        if (!name || !take(':')) return std::nullopt;
        std::optional<std::string> value = peek() == '"' ? readText() : readWord();
        if (!value) return std::nullopt;
        object[*name] = std::move(*value);
      } while (take(','));
      if (!take('}')) return std::nullopt;
    }
    skipSpace();
    if (at_ != text_.size()) return std::nullopt;
    return object;
  }

 private:
  void skipSpace() {
    while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != text_.npos) ++at_;
  }
  char peek() {
    skipSpace();
    return at_ < text_.size() ? text_[at_] : '\0';
  }
  bool take(char c) {
    if (peek() != c) return false;
    ++at_;
    return true;
  }

  // A number, true, false or null.
  std::optional<std::string> readWord() {
    skipSpace();
    const std::size_t end = text_.find_first_of(",} \t\r\n", at_);
    if (end == std::string_view::npos || end == at_) return std::nullopt;
    std::string word(text_.substr(at_, end - at_));
    if (word.find_first_not_of("0123456789+-.eEtrufalsn") != std::string::npos) return std::nullopt;
    at_ = end;
    return word;
  }

  std::optional<std::string> readText() {
    if (!take('"')) return std::nullopt;
    std::string text;
    while (at_ < text_.size()) {
      const char c = text_[at_++];
      if (c == '"') return text;
      if (c != '\\') {
        text += c;
      } else if (!readEscape(text)) {
        return std::nullopt;
      }
    }
    return std::nullopt;
  }

  bool readEscape(std::string& text) {
    constexpr std::string_view kNames = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (at_ == text_.size()) return false;
    const char name = text_[at_++];
    const std::size_t known = kNames.find(name);
    if (known != std::string_view::npos) {
      text += kMeanings[known];
      return true;
    }
    if (name != 'u' || text_.size() - at_ < kEscapeDigits) return false;
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < kEscapeDigits; ++i) {
      const int digit = hexDigit(text_[at_++]);
      if (digit < 0) return false;
      code = code << 4 | static_cast<std::uint32_t>(digit);
    }
    appendUtf8(code, text);
    return true;
  }

  const std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

std::string quoteJson(std::string_view text) {
  std::string json = "\"";
  for (const char c : text) {
    const auto code = static_cast<std::uint8_t>(c);
    if (c == '"' || c == '\\') {
      json += '\\';
      json += c;
    } else if (code < ' ') {
      json += "\\u00" + toHex({code});
    } else {
      json += c;
    }
  }
  return json + "\"";
}

std::optional<JsonObject> parseJsonObject(std::string_view line) {
  return Reader(line).readObject();
}

}  // namespace zelta
