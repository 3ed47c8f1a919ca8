// Memory that runs out on command. All allocations of a program that links `zelta_scarce_memory`
// pass through here.
#pragma once

#include <cstddef>
#include <new>

namespace zelta::test {

// Makes some allocations fail until the scope ends: of this thread, if nothing else is said.
class ScarceMemory {
 public:
  // All allocations after the next `allocations` fail.
  explicit ScarceMemory(int allocations);
  // Allocations of exactly `size` bytes fail.
  static ScarceMemory ofSize(std::size_t size);
  // Those of more than `size` bytes fail, in every thread.
  static ScarceMemory above(std::size_t size);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  // Whether an allocation of this thread has failed.
  bool ranOut() const;

 private:
  ScarceMemory() = default;
};

// Repeats a test with 0, 1, 2 ... allocations until the action needs no more:
//
//   for (MemorySweep sweep; sweep.next();) {
//     auto request = makeRequest();            // memory is ample
//     sweep.run([&] { request->cancel(); });   // memory is scarce
//     EXPECT_TRUE(request->isCompleted()) << sweep.allocations();
//   }
//
// The test fails if the action allocates nothing (nothing was tried) and if it never gets by.
class MemorySweep {
 public:
  // Begins the next round; false after a round with enough memory.
  bool next();

  // Runs the action once. A `std::bad_alloc` from it only ends it.
  template <typename Action>
  void run(Action action) {
    const ScarceMemory memory(allocations_);
    try {
      action();
    } catch (const std::bad_alloc&) {
    }
    ranOut_ = memory.ranOut();
  }

  // Whether an allocation of this round's action has failed.
  bool ranOut() const { return ranOut_; }
  // The number of allocations that this round allows.
  int allocations() const { return allocations_; }

 private:
  int allocations_ = -1;
  bool ranOut_ = true;
};

}  // namespace zelta::test
