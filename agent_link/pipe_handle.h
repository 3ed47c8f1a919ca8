// The owner of one server end of a pipe.
//
// Two values stand for no pipe: 0, which a move leaves, and all bits set, the result of a failed
// creation. Releasing a pipe cancels what is under way on it, drops its client and closes it, in
// this order and whatever each gives; it happens on destruction and when another handle is moved
// in.
//
// Threads: `get` and `valid` may be called while another thread moves a handle in; what was
// got must not be used any more once the holder is destroyed or holds another pipe.
#pragma once

#include <atomic>

#include "platform/pipe/pipe.h"

namespace zelta {

class PipeHandle {
 public:
  explicit PipeHandle(platform::PipeHandleValue value = platform::noPipe()) : value_(value) {}
  PipeHandle(PipeHandle&& other) noexcept : value_(other.take()) {}
  PipeHandle& operator=(PipeHandle&& other) noexcept;
  PipeHandle(const PipeHandle&) = delete;
  PipeHandle& operator=(const PipeHandle&) = delete;
  ~PipeHandle();

  platform::PipeHandleValue get() const { return value_.load(std::memory_order_acquire); }
  bool valid() const { return isValid(get()); }

  static bool isValid(platform::PipeHandleValue value) {
    return value != platform::noPipe() && value != platform::invalidPipe();
  }

 private:
  platform::PipeHandleValue take() {
    return value_.exchange(platform::noPipe(), std::memory_order_acq_rel);
  }
  static void release(platform::PipeHandleValue value);

  std::atomic<platform::PipeHandleValue> value_;
};

}  // namespace zelta
