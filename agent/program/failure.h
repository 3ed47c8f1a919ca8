// Handles an exception that a thread of the agent cannot, for example lack of memory or handles:
// the program is told and ends.
#pragma once

#include <array>
#include <atomic>
#include <exception>
#include <functional>

namespace zelta::agent {

// Called on the thread that fails, with a text for people that is gone afterwards. Must not throw.
using OnFailure = std::function<void(const char* problem)>;

// The body of a thread: runs `body` and passes an exception to `onFailure`.
template <typename Body>
void guarded(const OnFailure& onFailure, const Body& body) noexcept {
  try {
    body();
  } catch (const std::exception& error) {
    onFailure(error.what());
  } catch (...) {
    onFailure("an unknown exception");
  }
}

// Keeps the first failure for the thread that ends the program. Allocates nothing.
class FailureNote {
 public:
  // `wake` is called once, on the thread that fails; it must not throw.
  explicit FailureNote(std::function<void()> wake);
  FailureNote(const FailureNote&) = delete;
  FailureNote& operator=(const FailureNote&) = delete;

  // Any thread. A long text is cut off.
  void take(const char* problem) noexcept;
  // The first failure, or null. Any thread; valid while this object lives.
  const char* problem() const { return written_ ? text_.data() : nullptr; }

 private:
  const std::function<void()> wake_;
  std::atomic<bool> taken_{false};
  std::array<char, 256> text_{};  // written once, before `written_` is set
  std::atomic<bool> written_{false};
};

}  // namespace zelta::agent
