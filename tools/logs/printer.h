// Which records are shown, and how. Fed with the lines of the files in their order.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/logs/record.h"

namespace zelta::logs {

struct Filter {
  Level level = Level::kTrace;    // this one and the graver ones
  std::vector<std::string> tags;  // any of them; empty: all
  std::string session;            // the id's beginning; empty: all
  std::string since;              // from this time on; empty: all
};

bool matches(const Filter& filter, const Record& record);

// Not safe for several threads.
class Printer {
 public:
  using Output = std::function<void(std::string_view)>;

  Printer(Filter filter, bool color, Output output);

  // Takes one line, without its end. The header is shown once. A line that is no record belongs to
  // the record before it.
  void print(std::string_view line);

 private:
  Filter filter_;
  bool color_;
  Output output_;
  bool headerShown_ = false;
  bool lastShown_ = false;
};

}  // namespace zelta::logs
