// The system's error numbers as this platform layer reports them.
#pragma once

#include <cstdint>

namespace zelta::platform {

// The nearest of Windows' numbers, ERROR_GEN_FAILURE (31) if there is none.
std::uint32_t errorFromErrno(int number);

}  // namespace zelta::platform
