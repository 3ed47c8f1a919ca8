#include <cstring>

#include "platform/process/wipe.h"

namespace zelta::platform {

void wipe(void* memory, std::size_t size) noexcept {
  if (size > 0) explicit_bzero(memory, size);
}

}  // namespace zelta::platform
