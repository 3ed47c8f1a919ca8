// Shared by the fuzzers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "contract/bytes.h"

namespace zelta::test {

// Ends the process if a rule is broken, on whichever thread. A fuzzer keeps the input then.
inline void require(bool condition, const char* rule) {
  if (condition) return;
  (void)std::fprintf(stderr, "violated: %s\n", rule);
  std::abort();
}

// A fuzzer's bytes, taken from the front. After their end, values are zero or empty.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

  bool atEnd() const { return next_ == end_; }
  std::uint8_t byte() { return atEnd() ? std::uint8_t{0} : *next_++; }
  // Four bytes, the lowest first.
  std::uint32_t number() {
    const Bytes taken = bytes(kNumberSize);
    return taken.size() < kNumberSize ? 0 : loadLittleEndian(taken.data());
  }
  // At most `count` bytes.
  Bytes bytes(std::size_t count) {
    const std::uint8_t* const begin = next_;
    next_ += std::min(count, static_cast<std::size_t>(end_ - next_));
    return {begin, next_};
  }
  // The text up to the separator, which is also taken, or to the end.
  std::string text(char separator) {
    const std::uint8_t* const begin = next_;
    next_ = std::find(begin, end_, static_cast<std::uint8_t>(separator));
    std::string taken(begin, next_);
    if (!atEnd()) ++next_;
    return taken;
  }
  // One of a table's entries.
  template <typename Entry, std::size_t kSize>
  const Entry& pick(const Entry (&table)[kSize]) {
    return table[byte() % kSize];
  }

 private:
  const std::uint8_t* next_;
  const std::uint8_t* const end_;
};

}  // namespace zelta::test
