#include "agent_link/pipe_handle.h"

#include "platform/process/ports.h"

namespace zelta {

PipeHandle& PipeHandle::operator=(PipeHandle&& other) noexcept {
  if (this != &other) {
    release(value_.exchange(other.take(), std::memory_order_acq_rel));
  }
  return *this;
}

PipeHandle::~PipeHandle() { release(take()); }

void PipeHandle::release(platform::PipeHandleValue value) {
  if (!isValid(value)) return;
  platform::PipeApi& pipes = *platform::ports().pipes;
  pipes.cancel(value);
  pipes.disconnect(value);
  pipes.close(value);
}

}  // namespace zelta
