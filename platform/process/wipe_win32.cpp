#include <windows.h>

#include "platform/process/wipe.h"

namespace zelta::platform {

void wipe(void* memory, std::size_t size) noexcept {
  if (size > 0) SecureZeroMemory(memory, size);
}

}  // namespace zelta::platform
