// Memory that runs out, at every possible point of the callers' side: requests are completed once
// or not begun at all, what was begun is taken back, and the driver can always be taken down.
#include <array>
#include <atomic>
#include <optional>

#include "tests/host/host_fixture.h"
#include "tests/support/scarce_memory.h"

namespace zelta::host {
namespace {

using test::ScarceMemory;
using ::testing::IsEmpty;

constexpr auto kOutOfMemoryStatus = framework::hresult(0x8007000E);
constexpr int kManyAllocations = 500;  // more than any operation makes

class MemoryTest : public HostTest {
 protected:
  // Runs `operation` with 0, 1, 2 ... allocations until it says that they sufficed.
  template <typename Operation>
  static void withEveryShortage(Operation operation) {
    int allocations = 0;
    while (!operation(allocations)) {
      ASSERT_LT(++allocations, kManyAllocations) << "never enough memory";
    }
    EXPECT_GT(allocations, 0) << "the operation allocates nothing: nothing was tried";
  }

  // One request with no more than so many allocations; whether they sufficed.
  bool echoWith(int allocations) {
    std::atomic<int> completions{0};
    const File::Completion completion = [&](const IoResult&) { ++completions; };
    const std::vector<std::uint8_t> input = {1, 2, 3};
    std::shared_ptr<IoOperation> operation;
    bool ranOut = false;
    {
      const ScarceMemory memory(allocations);
      try {
        operation = file_->submit(fake::kEcho, input, 8, completion);
      } catch (const std::bad_alloc&) {
      }
      ranOut = memory.ranOut();
    }
    if (operation != nullptr) {
      EXPECT_TRUE(operation->wait(kLong));
      EXPECT_TRUE(!ranOut || operation->result().status == kOutOfMemoryStatus ||
                  operation->result().status == framework::kOk);
      if (!ranOut) {
        EXPECT_EQ(operation->result().output, input);
      }
    }
    EXPECT_EQ(completions, operation == nullptr ? 0 : 1);
    return !ranOut;
  }
};

TEST_F(MemoryTest, RequestIsCompletedOnceOrNotBegun) {
  start();
  control(fake::kEcho);
  withEveryShortage([this](int allocations) { return echoWith(allocations); });
  EXPECT_EQ(control(fake::kEcho, {7}).output, std::vector<std::uint8_t>{7});
  host_->tearDown();
  EXPECT_THAT(errors(), IsEmpty());
}

// The request and its storage; the third is the fake driver's own.
TEST_F(MemoryTest, ControlNeedsTwoAllocationsBeforeTheDriverIsCalledAndNoneAfterwards) {
  start();
  std::array<std::uint8_t, 4> bytes = {1, 2, 3, 4};
  const auto echo = [&](int allocations) {
    const ScarceMemory memory(allocations);
    return file_->controlInParts(fake::kEcho, {{}, {bytes.data(), 4}}, {{bytes.data(), 4}, {}},
                                 kLong);
  };
  for (const int tooFew : {0, 1}) EXPECT_EQ(echo(tooFew).status, kOutOfMemoryStatus);
  EXPECT_EQ(echo(3).status, framework::kOk);
}

TEST_F(MemoryTest, FileIsOpenedOrNot) {
  start();
  const std::wstring name = L"dev0";
  withEveryShortage([&](int allocations) {
    std::shared_ptr<File> file;
    bool ranOut = false;
    {
      const ScarceMemory memory(allocations);
      try {
        file = host_->open(name);
      } catch (const std::bad_alloc&) {
      }
      ranOut = memory.ranOut();
    }
    EXPECT_EQ(file == nullptr, ranOut);
    return !ranOut;
  });
}

TEST_F(MemoryTest, BringUpThatFailsIsTakenBackAndCanBeRepeated) {
  withEveryShortage([this](int allocations) {
    bool failed = false;
    bool ranOut = false;
    {
      const ScarceMemory memory(allocations);
      try {
        host_->bringUp();
      } catch (const HostError&) {
        failed = true;
      } catch (const std::bad_alloc&) {
        failed = true;
      }
      ranOut = memory.ranOut();
    }
    EXPECT_EQ(failed, ranOut);
    EXPECT_EQ(host_->open(L"dev0") == nullptr, failed);
    return !ranOut;
  });
  start();
  EXPECT_EQ(control(fake::kEcho, {7}).output, std::vector<std::uint8_t>{7});
  host_->tearDown();
  EXPECT_TRUE(host_->unload());
}

TEST_F(MemoryTest, CancellingNeedsNone) {
  start();
  const auto operation = submit(fake::kWait);
  {
    const ScarceMemory memory(0);
    operation->cancel();
  }
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
}

TEST_F(MemoryTest, TearingDownNeedsNone) {
  start();
  std::atomic<int> completions{0};
  std::vector<std::shared_ptr<IoOperation>> operations;
  for (const auto code : {fake::kWait, fake::kWaitForEver, fake::kWait, fake::kWaitForEver}) {
    operations.push_back(file_->submit(code, {}, 8, [&](const IoResult&) { ++completions; }));
  }
  {
    const ScarceMemory memory(0);
    host_->tearDown();
  }
  for (const auto& operation : operations) EXPECT_TRUE(operation->completed());
  EXPECT_EQ(completions, 4);
  // The driver completed what it had kept too late; there was no memory to tell of it.
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_TRUE(host_->unload());
}

}  // namespace
}  // namespace zelta::host
