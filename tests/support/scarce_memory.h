// Memory that runs out on command. All allocations of a program that links `zelta_scarce_memory`
// pass through here.
#pragma once

#include <cstddef>
#include <new>

namespace zelta::test {

// Makes some allocations fail until the scope ends: of this thread, if nothing else is said.
class ScarceMemory {
 public:
  // All after the next `allocations` ones fail.
  explicit ScarceMemory(int allocations);
  // Those of exactly `size` bytes fail.
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

// Repeats a test with 0, 1, 2 ... allocations until the action gets by with them:
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
  // Begins the next round; false after the round in which the memory sufficed.
  bool next();

  // Runs the action once. A `std::bad_alloc` that it lets out only ends it.
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
  // How many allocations this round grants.
  int allocations() const { return allocations_; }

 private:
  int allocations_ = -1;
  bool ranOut_ = true;
};

}  // namespace zelta::test
