// The owner of one server end of a pipe.
//
// Two values stand for no pipe: 0, which a move leaves, and all bits set, the result of a failed
// creation. A release cancels the pipe's calls, drops its client and closes it, in this order,
// whatever each step returns. It happens on destruction and when another handle is moved in.
//
// Threads: `get` and `valid` may be called while another thread moves a handle in. The result of
// `get` must not be used any more once the holder is destroyed or holds another pipe.
#pragma once

#include <atomic>

#include "platform/pipe/pipe.h"
#include "platform/process/scoped_handle.h"

namespace zelta {

struct PipeHandleTraits {
  using Value = platform::PipeHandleValue;
  using Storage = std::atomic<Value>;
  static Value none() { return platform::noPipe(); }
  static bool isValid(Value pipe) {
    return pipe != platform::noPipe() && pipe != platform::invalidPipe();
  }
  static void close(Value pipe);
};
using PipeHandle = platform::ScopedHandle<PipeHandleTraits>;

}  // namespace zelta
