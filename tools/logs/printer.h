// Which records are shown, and how. Fed with the lines of the files in their order.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/logs/dump_mask.h"
#include "tools/logs/record.h"

namespace zelta::logs {

struct Filter {
  Level level = Level::kTrace;    // this one and the graver ones
  std::vector<std::string> tags;  // any of them; empty: all
  std::string session;            // the id's beginning; empty: all
  std::string since;              // from this time on; empty: all
};

struct Look {
  bool color = false;
  bool escape = false;   // what a terminal would obey or show in another order, as `\xNN`
  bool secrets = false;  // PINs in byte dumps
};

bool matches(const Filter& filter, const Record& record);

// Not safe for several threads.
class Printer {
 public:
  using Output = std::function<void(std::string_view)>;

  Printer(Filter filter, Look look, Output output);

  // Takes one line, without its end. The header is shown once. A line that is no record belongs to
  // the record before it.
  void print(std::string_view line);

 private:
  Filter filter_;
  Look look_;
  Output output_;
  DumpMask mask_;
  bool headerShown_ = false;
  bool lastShown_ = false;
};

}  // namespace zelta::logs
