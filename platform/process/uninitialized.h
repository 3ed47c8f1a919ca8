// Bytes that nobody has written yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zelta::platform {

// `std::make_unique` would write zero bytes over all of them; C++20 has a function for this.
inline std::unique_ptr<std::uint8_t[]> makeUninitialized(std::size_t size) {
  return std::unique_ptr<std::uint8_t[]>(new std::uint8_t[size]);
}

}  // namespace zelta::platform
