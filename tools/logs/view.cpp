#include "tools/logs/view.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <nlohmann/json.hpp>
#include <utility>

#include "contract/harmless.h"
#include "tools/logs/terminal_text.h"

namespace zelta::logs {

namespace {

constexpr std::string_view kBold = "\x1b[1m";
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kPlain = "\x1b[0m";

std::string_view colorOf(const Record& record) {
  static constexpr std::array<std::string_view, logging::kLevelTags.size()> kColors = {
      "\x1b[1;31m", "\x1b[31m", "", kDim, kDim};  // by level
  return isRoutine(record) ? kDim : kColors[static_cast<std::size_t>(record.level)];
}

class TextView : public View {
 protected:
  TextView(const Look& look, Output output) : look_(look), output_(std::move(output)) {}

  std::string shown(std::string_view text) const {
    return look_.escape ? harmless(text) : std::string(text);
  }
  void put(std::string_view text, std::string_view color = "") {
    output_(look_.color && !color.empty() ? fmt::format("{}{}{}", color, text, kPlain)
                                          : std::string(text));
  }

 private:
  Look look_;
  Output output_;
};

// The unchanged lines of the files.
class FullView : public TextView {
 public:
  FullView(const Look& look, Output output) : TextView(look, std::move(output)) {}

  void showHeader(std::string_view line) override { put(shown(line), kBold); }
  void showRecord(const Record& record, const std::filesystem::path& /*file*/) override {
    put(shown(fmt::format("{}{}", record.columns, record.message)), colorOf(record));
  }
  void showRest(std::string_view line, const std::filesystem::path& /*file*/) override {
    put(shown(line));
  }
};

// Time, level, code and message. A heading says the day and the session if one of them changes.
class CompactView : public TextView {
 public:
  CompactView(const Look& look, Output output) : TextView(look, std::move(output)) {}

  void showHeader(std::string_view /*line*/) override {}
  void showRecord(const Record& record, const std::filesystem::path& /*file*/) override {
    const std::string heading =
        fmt::format("{} session {}", record.time.substr(0, kDayLength), record.session);
    if (heading != std::exchange(heading_, heading)) putWrapped("", heading, kBold);
    const auto code = record.code == 0 ? std::string() : std::to_string(record.code);
    putWrapped(fmt::format("{} {:<8} {:>11} ", record.time.substr(kDayLength + 1, kTimeLength),
                           levelName(record.level), code),
               record.message, colorOf(record));
  }
  void showRest(std::string_view line, const std::filesystem::path& /*file*/) override {
    putWrapped(std::string(kMessageAt, ' '), line, "");
  }

 private:
  static constexpr std::size_t kWidth = 100;
  static constexpr std::size_t kDayLength = 10;   // 2024-03-05
  static constexpr std::size_t kTimeLength = 12;  // 14:07:09.042
  static constexpr std::size_t kMessageAt = kTimeLength + 1 + 8 + 1 + 11 + 1;

  void putWrapped(std::string front, std::string_view text, std::string_view color) {
    const std::string message = shown(text);
    for (const std::string_view line : wrapped(message, kWidth - kMessageAt)) {
      put(fmt::format("{}{}", front, line), color);
      front.assign(kMessageAt, ' ');
    }
  }

  std::string heading_;
};

// An object on each line. Bytes that are not UTF-8 become U+FFFD.
class JsonView : public View {
 public:
  JsonView(const Look& look, Output output) : escape_(look.escape), output_(std::move(output)) {}

  void showHeader(std::string_view /*line*/) override {}
  void showRecord(const Record& record, const std::filesystem::path& file) override {
    std::string level(levelName(record.level));
    std::transform(level.begin(), level.end(), level.begin(),
                   [](unsigned char each) { return static_cast<char>(std::tolower(each)); });
    const std::string_view tag = firstTag(record.message);
    put({{"time", record.time},
         {"level", level},
         {"code", record.code},
         {"session", record.session},
         {"tag", tag.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(tag)},
         {"message", record.message},
         {"thread", record.thread},
         {"file", file.filename().string()}});
  }
  void showRest(std::string_view line, const std::filesystem::path& file) override {
    put({{"message", line}, {"file", file.filename().string()}});
  }

 private:
  void put(const nlohmann::ordered_json& object) {
    output_(object.dump(-1, ' ', escape_, nlohmann::ordered_json::error_handler_t::replace));
  }

  bool escape_;
  Output output_;
};

}  // namespace

std::unique_ptr<View> makeView(const Look& look, View::Output output) {
  switch (look.format) {
    case Format::kFull:
      return std::make_unique<FullView>(look, std::move(output));
    case Format::kCompact:
      return std::make_unique<CompactView>(look, std::move(output));
    case Format::kJson:
      break;
  }
  return std::make_unique<JsonView>(look, std::move(output));
}

}  // namespace zelta::logs
