#include <windows.h>

#include "platform/process/thread_id.h"

namespace zelta::platform {

std::uint32_t currentThreadId() noexcept { return GetCurrentThreadId(); }

}  // namespace zelta::platform
