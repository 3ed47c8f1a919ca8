// The copy of a scope's name that the scoped objects of the diagnostics keep.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>

namespace zelta {

// Allocates nothing. A name is cut off at the greatest length of a log message.
class ScopeName {
 public:
  explicit ScopeName(const char* name) noexcept {
    const std::size_t length = std::min(std::strlen(name), text_.size() - 1);
    std::memcpy(text_.data(), name, length);
    text_[length] = '\0';
  }

  const char* c_str() const { return text_.data(); }

 private:
  std::array<char, 256> text_;
};

}  // namespace zelta
