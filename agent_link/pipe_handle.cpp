#include "agent_link/pipe_handle.h"

#include "platform/process/ports.h"

namespace zelta {

void PipeHandleTraits::close(Value pipe) {
  platform::PipeApi& pipes = *platform::ports().pipes;
  pipes.cancel(pipe);
  pipes.disconnect(pipe);
  pipes.close(pipe);
}

}  // namespace zelta
