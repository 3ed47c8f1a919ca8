// Shared by the benchmark programs: times of one operation, options, failure.
//
// Each operation is printed as a line of tab-separated fields for bench.py, which makes the table:
// name, median and 90th percentile in microseconds, count.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zelta::benchmarks {

using Clock = std::chrono::steady_clock;

class Samples {
 public:
  explicit Samples(std::string name) : name_(std::move(name)) {}

  void add(Clock::duration time) {
    microseconds_.push_back(std::chrono::duration<double, std::micro>(time).count());
  }
  // The time that `operation` takes, `count` times after a few that do not count.
  template <typename Operation>
  void measure(int count, Operation operation) {
    for (int i = -kUncounted; i < count; ++i) {
      const auto begun = Clock::now();
      operation();
      const auto took = Clock::now() - begun;
      if (i >= 0) add(took);
    }
  }
  void print() {
    if (microseconds_.empty()) return;
    std::sort(microseconds_.begin(), microseconds_.end());
    const std::size_t count = microseconds_.size();
    (void)std::printf("%s\t%.2f\t%.2f\t%zu\n", name_.c_str(), microseconds_[count / 2],
                      microseconds_[count * 9 / 10], count);
  }

 private:
  static constexpr int kUncounted = 10;

  const std::string name_;
  std::vector<double> microseconds_;
};

// The main function of a program whose arguments are numbers; `names` are their names.
template <typename... Numbers>
int runWithNumbers(int argc, char** argv, const char* names, void (*run)(Numbers...)) {
  if (argc != 1 + static_cast<int>(sizeof...(Numbers))) {
    (void)std::fprintf(stderr, "usage: %s %s\n", argv[0], names);
    return 2;
  }
  const auto next = [&argv] { return std::strtol(*++argv, nullptr, 10); };
  std::apply(run, std::tuple<Numbers...>{static_cast<Numbers>(next())...});
  return 0;
}

// Ends the program: a measurement without its peer is worthless.
[[noreturn]] inline void fail(const std::string& why) {
  (void)std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(1);
}

}  // namespace zelta::benchmarks
