// Times of one operation, and what is printed of them: a line of tab-separated fields for the
// program that makes the table (bench.py): name, median and 90th percentile in microseconds, count.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
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
    std::printf("%s\t%.2f\t%.2f\t%zu\n", name_.c_str(), microseconds_[count / 2],
                microseconds_[count * 9 / 10], count);
  }

 private:
  static constexpr int kUncounted = 10;

  const std::string name_;
  std::vector<double> microseconds_;
};

}  // namespace zelta::benchmarks
