#include <windows.h>

#include "platform/process/error.h"

namespace zelta::platform {

std::uint32_t lastError() { return GetLastError(); }

void setLastError(std::uint32_t error) { SetLastError(error); }

}  // namespace zelta::platform
