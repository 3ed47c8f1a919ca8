#include <unistd.h>

#include "platform/process/thread_id.h"

namespace zelta::platform {

std::uint32_t currentThreadId() noexcept { return static_cast<std::uint32_t>(gettid()); }

}  // namespace zelta::platform
