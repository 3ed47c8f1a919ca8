// Looks for a secret in memory that operator delete frees.
//
// This replaces operator new and delete of a program that links it.
#pragma once

#include <array>
#include <cstdint>

namespace zelta::test {

// Bytes that do not occur by chance.
inline constexpr std::array<std::uint8_t, 12> kSecret = {0x9E, 0x37, 0x79, 0xB9, 0x7F, 0x4A,
                                                         0x7C, 0x15, 0xF3, 0x9C, 0xC0, 0x60};

// One at a time; made by the thread that `kOwn` is about.
class FreedMemoryWatch {
 public:
  enum class Threads { kOwn, kOthers };

  explicit FreedMemoryWatch(Threads threads);
  ~FreedMemoryWatch();
  FreedMemoryWatch(const FreedMemoryWatch&) = delete;
  FreedMemoryWatch& operator=(const FreedMemoryWatch&) = delete;

  // The number of blocks that those threads have freed: with the secret in them, and in all.
  int found() const;
  int freed() const;
};

}  // namespace zelta::test
