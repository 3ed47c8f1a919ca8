// The owner of one handle of the operating system. Its traits say what kind of handle it is:
//
//   struct Traits {
//     using Value = ...;                 // the handle itself
//     using Storage = ...;               // Value, or std::atomic<Value> if threads share the owner
//     static Value none();               // stands for no handle
//     static bool isValid(Value value);  // `none`, and what a failing call returns, are not valid
//     static void close(Value value);    // called with valid handles only; result ignored
//   };
//
// Moving transfers the handle and leaves none behind. Closing keeps the calling thread's errno and
// last error. One thread at a time; with an atomic storage `get` and `valid` may be called while
// another thread moves a handle in, but their result must not be used once it has been closed.
#pragma once

#include <atomic>
#include <cerrno>
#include <utility>

#include "platform/process/error.h"

namespace zelta::platform {

template <typename Traits>
class ScopedHandle {
 public:
  using Value = typename Traits::Value;

  ScopedHandle() = default;
  explicit ScopedHandle(Value value) : value_(value) {}
  ScopedHandle(ScopedHandle&& other) noexcept : value_(other.release()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~ScopedHandle() { reset(); }

  static bool isValid(Value value) { return Traits::isValid(value); }

  Value get() const { return value_; }
  bool valid() const { return isValid(value_); }
  explicit operator bool() const { return valid(); }
  // Gives up the handle without closing it.
  Value release() { return exchange(value_, Traits::none()); }

  void reset(Value value = Traits::none()) {
    const Value before = exchange(value_, value);
    if (!isValid(before)) return;
    const int number = errno;
    const std::uint32_t error = lastError();
    Traits::close(before);
    setLastError(error);
    errno = number;
  }

 private:
  static Value exchange(Value& stored, Value value) { return std::exchange(stored, value); }
  static Value exchange(std::atomic<Value>& stored, Value value) { return stored.exchange(value); }

  typename Traits::Storage value_{Traits::none()};
};

}  // namespace zelta::platform
