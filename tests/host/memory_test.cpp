// Memory that runs out, at every possible point of the callers' side: requests are completed once
// or not begun at all, partial work is undone, and the driver can always be taken down.
#include <array>
#include <atomic>

#include "tests/host/host_fixture.h"
#include "tests/support/scarce_memory.h"

namespace zelta::host {
namespace {

using test::MemorySweep;
using test::ScarceMemory;
using ::testing::IsEmpty;

class MemoryTest : public HostTest {};

TEST_F(MemoryTest, RequestWithoutMemory_IsCompletedOnceOrNotBegun) {
  start();
  control(fake::kEcho);
  const std::vector<std::uint8_t> input = {1, 2, 3};
  for (MemorySweep sweep; sweep.next();) {
    std::atomic<int> completions{0};
    const File::Completion completion = [&](const IoResult&) { ++completions; };
    std::shared_ptr<IoOperation> operation;
    sweep.run([&] { operation = file_->submit(fake::kEcho, input, 8, completion); });
    EXPECT_EQ(completions, operation == nullptr ? 0 : 1);
    if (operation == nullptr) continue;
    EXPECT_TRUE(operation->wait(kLong));
    const IoResult& result = operation->result();
    EXPECT_TRUE(result.status == framework::kOk ||
                (sweep.ranOut() && result.status == status::kOutOfMemory));
    if (!sweep.ranOut()) {
      EXPECT_EQ(result.output, input);
    }
  }
  EXPECT_EQ(control(fake::kEcho, {7}).output, std::vector<std::uint8_t>{7});
  host_->tearDown();
  EXPECT_THAT(errors(), IsEmpty());
}

// The request and its storage; the third is the fake driver's own.
TEST_F(MemoryTest, Control_NeedsTwoAllocationsBeforeTheDriverIsCalledAndNoneAfterwards) {
  start();
  std::array<std::uint8_t, 4> bytes = {1, 2, 3, 4};
  const auto echo = [&](int allocations) {
    const ScarceMemory memory(allocations);
    return file_->controlInParts(fake::kEcho, {{}, {bytes.data(), 4}}, {{bytes.data(), 4}, {}},
                                 kLong);
  };
  for (const int tooFew : {0, 1}) EXPECT_EQ(echo(tooFew).status, status::kOutOfMemory);
  EXPECT_EQ(echo(3).status, framework::kOk);
}

TEST_F(MemoryTest, FileWithoutMemory_IsOpenedOrNot) {
  start();
  const std::wstring name = L"dev0";
  for (MemorySweep sweep; sweep.next();) {
    std::shared_ptr<File> file;
    sweep.run([&] { file = host_->open(name); });
    EXPECT_EQ(file == nullptr, sweep.ranOut());
  }
}

TEST_F(MemoryTest, BringUpWithoutMemory_IsTakenBackAndCanBeRepeated) {
  for (MemorySweep sweep; sweep.next();) {
    bool failed = true;
    sweep.run([&] {
      try {
        host_->bringUp();
        failed = false;
      } catch (const HostError&) {
      }
    });
    EXPECT_EQ(failed, sweep.ranOut());
    EXPECT_EQ(host_->open(L"dev0") == nullptr, failed);
  }
  start();
  EXPECT_EQ(control(fake::kEcho, {7}).output, std::vector<std::uint8_t>{7});
  host_->tearDown();
  EXPECT_TRUE(host_->unload());
}

TEST_F(MemoryTest, Cancelling_NeedsNoMemory) {
  start();
  const auto operation = submit(fake::kWait);
  {
    const ScarceMemory memory(0);
    operation->cancel();
  }
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
}

TEST_F(MemoryTest, TearingDown_NeedsNoMemory) {
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
  // The driver completed its kept request too late; there was no memory to report that.
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_TRUE(host_->unload());
}

}  // namespace
}  // namespace zelta::host
