#include "tests/support/freed_memory.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace zelta::test {
namespace {

enum class Watched { kNobody, kOwn, kOthers };
std::atomic<Watched> watched{Watched::kNobody};
std::atomic<int> foundBlocks{0};
std::atomic<int> freedBlocks{0};
thread_local bool isOwn = false;

void look(const void* block) noexcept {
  const Watched who = watched.load(std::memory_order_relaxed);
  if (block == nullptr || who == Watched::kNobody || isOwn != (who == Watched::kOwn)) return;
  ++freedBlocks;
  const auto* const begin = static_cast<const std::uint8_t*>(block);
  const std::uint8_t* const end = begin + malloc_usable_size(const_cast<void*>(block));
  if (std::search(begin, end, kSecret.begin(), kSecret.end()) != end) ++foundBlocks;
}

void release(void* block) noexcept {
  look(block);
  std::free(block);
}

}  // namespace

FreedMemoryWatch::FreedMemoryWatch(Threads threads) {
  isOwn = true;
  foundBlocks = 0;
  freedBlocks = 0;
  watched = threads == Threads::kOwn ? Watched::kOwn : Watched::kOthers;
}

FreedMemoryWatch::~FreedMemoryWatch() {
  watched = Watched::kNobody;
  isOwn = false;
}

int FreedMemoryWatch::found() const { return foundBlocks; }
int FreedMemoryWatch::freed() const { return freedBlocks; }

}  // namespace zelta::test

void* operator new(std::size_t size) {
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* block) noexcept { zelta::test::release(block); }
void operator delete[](void* block) noexcept { zelta::test::release(block); }
void operator delete(void* block, std::size_t) noexcept { zelta::test::release(block); }
void operator delete[](void* block, std::size_t) noexcept { zelta::test::release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { zelta::test::release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { zelta::test::release(block); }
