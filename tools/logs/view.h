// Shows records: unchanged, in few columns, or as JSON.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tools/logs/record.h"

namespace zelta::logs {

enum class Format { kFull, kCompact, kJson };

struct Look {
  bool color = false;
  bool escape = false;   // characters that a terminal would obey or reorder
  bool secrets = false;  // show PINs in byte dumps
  Format format = Format::kFull;
};

// Takes the lines to show, in order. Not safe for several threads.
class View {
 public:
  // Takes a line without its end.
  using Output = std::function<void(std::string_view)>;

  virtual ~View() = default;

  virtual void showHeader(std::string_view line) = 0;
  virtual void showRecord(const Record& record, const std::filesystem::path& file) = 0;
  // A line that continues the record before it.
  virtual void showRest(std::string_view line, const std::filesystem::path& file) = 0;
};

std::unique_ptr<View> makeView(const Look& look, View::Output output);

}  // namespace zelta::logs
