#include "agent_link/pipe_reader.h"
#include "driver/device/my_device.h"

namespace zelta {

std::unique_ptr<Reader> createPipeReader(std::uint32_t index, ReaderDevice* device) {
  return std::make_unique<PipeReader>(index, device);
}

}  // namespace zelta
