// Filters the records to show. Gets the lines of the files in order.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/logs/dump_mask.h"
#include "tools/logs/record.h"
#include "tools/logs/view.h"

namespace zelta::logs {

struct Filter {
  Level level = Level::kTrace;    // this one and the more severe ones
  std::vector<std::string> tags;  // any of them; empty: all
  std::string session;            // the id's beginning; empty: all
  std::string since;              // the earliest time; empty: all
};

bool matches(const Filter& filter, const Record& record);

// Not safe for several threads.
class Printer {
 public:
  Printer(Filter filter, const Look& look, View::Output output);

  // Takes one line of the file, without its end. The header is shown once. A line that is not a
  // record belongs to the record before it.
  void print(std::string_view line, const std::filesystem::path& file);

 private:
  Filter filter_;
  bool secrets_;
  std::unique_ptr<View> view_;
  DumpMask mask_;
  bool headerShown_ = false;
  bool lastShown_ = false;
};

}  // namespace zelta::logs
