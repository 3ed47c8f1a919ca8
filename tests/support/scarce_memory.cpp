#include "tests/support/scarce_memory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace zelta::test {
namespace {

constexpr int kManyAllocations = 500;  // more than any action makes

// Plain thread-local numbers, since allocating must not allocate.
enum class Shortage { kNone, kCount, kSize };
thread_local Shortage shortage = Shortage::kNone;
thread_local std::size_t limit = 0;  // allocations left, or the size that fails
thread_local bool failed = false;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> largest{kNoLimit};  // bytes that no thread may exceed

bool fails(std::size_t size) noexcept {
  if (size > largest) return true;
  switch (shortage) {
    case Shortage::kCount:
      if (limit == 0) return true;
      --limit;
      return false;
    case Shortage::kSize:
      return size == limit;
    default:
      return false;
  }
}

void* allocate(std::size_t size) noexcept {
  if (fails(size)) {
    failed = true;
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void begin(Shortage kind, std::size_t value) {
  failed = false;
  limit = value;
  shortage = kind;
}

}  // namespace

ScarceMemory::ScarceMemory(int allocations) {
  begin(Shortage::kCount, static_cast<std::size_t>(allocations));
}

ScarceMemory ScarceMemory::ofSize(std::size_t size) {
  begin(Shortage::kSize, size);
  return ScarceMemory();
}

ScarceMemory ScarceMemory::above(std::size_t size) {
  failed = false;
  largest = size;
  return ScarceMemory();
}

ScarceMemory::~ScarceMemory() {
  shortage = Shortage::kNone;
  largest = kNoLimit;
}

bool ScarceMemory::ranOut() const { return failed; }

bool MemorySweep::next() {
  if (!ranOut_) {
    EXPECT_GT(allocations_, 0) << "the action allocates nothing: nothing was tried";
    return false;
  }
  if (++allocations_ == kManyAllocations) {
    ADD_FAILURE() << "never enough memory";
    return false;
  }
  ranOut_ = false;
  return true;
}

}  // namespace zelta::test

void* operator new(std::size_t size) {
  void* memory = zelta::test::allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return zelta::test::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return zelta::test::allocate(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
