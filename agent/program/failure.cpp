#include "agent/program/failure.h"

#include <cstring>
#include <utility>

namespace zelta::agent {

FailureNote::FailureNote(std::function<void()> wake) : wake_(std::move(wake)) {}

void FailureNote::take(const char* problem) noexcept {
  if (taken_.exchange(true)) return;
  std::strncpy(text_.data(), problem, text_.size() - 1);
  written_ = true;
  wake_();
}

}  // namespace zelta::agent
