#include "tests/support/scarce_memory.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

namespace zelta::test {
namespace {

// Keeps the compiler from omitting an allocation. One for each thread would itself be allocated on
// some systems.
void allocate(int times) {
  static std::unique_ptr<int> kept;
  for (int i = 0; i < times; ++i) kept = std::make_unique<int>(i);
}

TEST(ScarceMemory, AllocationsAfterTheGrantedOnes_ThrowUntilTheScopeEnds) {
  {
    const ScarceMemory memory(2);
    EXPECT_NO_THROW(allocate(2));
    EXPECT_FALSE(memory.ranOut());
    EXPECT_THROW(allocate(1), std::bad_alloc);
    EXPECT_TRUE(memory.ranOut());
  }
  EXPECT_NO_THROW(allocate(1));
}

TEST(ScarceMemory, OfOneSize_FailsForThatSizeOnly) {
  const ScarceMemory memory = ScarceMemory::ofSize(777);
  EXPECT_NO_THROW(std::make_unique<char[]>(776));
  EXPECT_EQ(::operator new(777, std::nothrow), nullptr);
  EXPECT_TRUE(memory.ranOut());
}

TEST(ScarceMemory, AboveASize_FailsInEveryThread) {
  const ScarceMemory memory = ScarceMemory::above(777);
  std::thread([] {
    EXPECT_NO_THROW(std::make_unique<char[]>(777));
    EXPECT_EQ(::operator new(778, std::nothrow), nullptr);
  }).join();
}

TEST(ScarceMemory, OtherThread_HasAmpleMemory) {
  std::thread other([] { EXPECT_NO_THROW(allocate(1)); });
  const ScarceMemory memory(0);
  other.join();
  EXPECT_FALSE(memory.ranOut());
}

TEST(MemorySweep, GrantsOneAllocationMoreEachRound_UntilTheySuffice) {
  std::vector<int> granted;
  for (MemorySweep sweep; sweep.next();) {
    int done = 0;
    sweep.run([&] {
      for (; done < 3; ++done) allocate(1);
    });
    EXPECT_EQ(done, sweep.allocations());
    EXPECT_EQ(sweep.ranOut(), done < 3);
    granted.push_back(sweep.allocations());
  }
  EXPECT_EQ(granted, (std::vector<int>{0, 1, 2, 3}));
}

void sweepNothing() {
  for (MemorySweep sweep; sweep.next();) sweep.run([] {});
}

void sweepWithoutEnd() {
  const auto allocateAlways = [] {
    for (;;) allocate(1);
  };
  for (MemorySweep sweep; sweep.next();) sweep.run(allocateAlways);
}

void sweepWithoutAnAction() {
  for (MemorySweep sweep; sweep.next();) {
  }
}

TEST(MemorySweep, ActionThatTriesNothing_FailsTheTest) {
  EXPECT_NONFATAL_FAILURE(sweepNothing(), "nothing was tried");
  EXPECT_NONFATAL_FAILURE(sweepWithoutAnAction(), "nothing was tried");
}

TEST(MemorySweep, ActionThatNeverGetsBy_FailsTheTest) {
  EXPECT_NONFATAL_FAILURE(sweepWithoutEnd(), "never enough memory");
}

}  // namespace
}  // namespace zelta::test
