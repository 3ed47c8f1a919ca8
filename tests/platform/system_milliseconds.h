// The counter that ticks are held against.
#pragma once

#include <cstdint>

namespace zelta::test {

// Of the operating system's steady clock, asked in another way than the port does.
std::uint64_t systemMilliseconds();

}  // namespace zelta::test
