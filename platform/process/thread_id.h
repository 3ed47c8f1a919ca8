// The calling thread's number in the operating system, as process lists and debuggers show it.
#pragma once

#include <cstdint>

namespace zelta::platform {

// No other living thread has the same. Linux: the kernel's thread id.
std::uint32_t currentThreadId() noexcept;

}  // namespace zelta::platform
