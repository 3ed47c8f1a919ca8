// Memory that runs out in the system's pipes: a call fails with 8 (not enough memory) or succeeds,
// what it began is taken back, and closing needs no memory at all.
#include <algorithm>
#include <functional>

#include "platform/process/error.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/scarce_memory.h"

namespace zelta::test {

namespace {

constexpr int kManyAllocations = 500;  // more than any call makes

class PipeMemoryTest : public SystemPipeTest {
 protected:
  // Makes the call with 0, 1, 2 ... allocations until they suffice; each failure is handed to
  // `check`.
  template <typename Call, typename Check>
  static void withEveryShortage(Call call, Check check) {
    for (int allocations = 0; allocations < kManyAllocations; ++allocations) {
      bool ok = false;
      bool ranOut = false;
      {
        const ScarceMemory memory(allocations);
        ok = call();
        ranOut = memory.ranOut();
      }
      const std::uint32_t error = platform::lastError();
      if (!ranOut) {
        EXPECT_TRUE(ok) << error;
        EXPECT_GT(allocations, 0) << "the call allocates nothing: nothing was tried";
        return;
      }
      EXPECT_FALSE(ok) << "after " << allocations << " allocations";
      EXPECT_EQ(error, error::kNotEnoughMemory) << "after " << allocations << " allocations";
      check();
    }
    FAIL() << "never enough memory";
  }

  // Without any allocation.
  template <typename Call>
  static PipeOutcome withoutMemory(Call call) {
    const ScarceMemory memory(0);
    const bool ok = call();
    return {ok, ok ? 0 : platform::lastError()};
  }

  std::size_t filesOfPipes() const {
    const std::filesystem::recursive_directory_iterator all(folder_.path());
    return static_cast<std::size_t>(std::count_if(
        begin(all), end(all), [](const auto& entry) { return !entry.is_directory(); }));
  }
};

TEST_F(PipeMemoryTest, CreationThatFailsLeavesNothing) {
  platform::PipeArguments arguments;
  ASSERT_TRUE(pipes_.convertSecurityDescriptor(kPipeSddl, &arguments.securityDescriptor));
  const std::string name = kPipeName;
  const std::size_t descriptors = openDescriptors();
  withEveryShortage(
      [&] {
        pipe_ = pipes_.create(name, arguments);
        return pipe_ != platform::invalidPipe();
      },
      [&] {
        EXPECT_EQ(filesOfPipes(), 0u);
        EXPECT_EQ(openDescriptors(), descriptors);
      });
  connected();
}

TEST_F(PipeMemoryTest, ClosingNeedsNone) {
  createPipe();
  const PipeClient client = connected();
  EXPECT_EQ(withoutMemory([this] { return pipes_.close(pipe_); }), kPipeOk);
  EXPECT_EQ(filesOfPipes(), 0u);
  pipe_ = platform::noPipe();
}

// The place that the next client comes to needs some; the client that is there is dropped in any
// case.
TEST_F(PipeMemoryTest, DisconnectThatFailsDropsTheClientAndTheNextConnectMakesGood) {
  createPipe();
  PipeClient client = connected();
  EXPECT_EQ(withoutMemory([this] { return pipes_.disconnect(pipe_); }),
            pipeError(error::kNotEnoughMemory));
  EXPECT_TRUE(client.waitForDrop());
  PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
  PipeClient next;
  EXPECT_TRUE(next.connectWhenListening(kPipeName));
  const PipeOutcome outcome = connecting.outcome();
  EXPECT_TRUE(outcome == kPipeOk || outcome == pipeError(error::kPipeConnected));
}

TEST_F(PipeMemoryTest, ConversionThatFailsCanBeTriedAgain) {
  // Not one that another test has converted: each text is kept.
  const std::string sddl = "D:(A;;GA;;;LS)(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;AN)";
  platform::PipeArguments arguments;
  withEveryShortage(
      [&] { return pipes_.convertSecurityDescriptor(sddl, &arguments.securityDescriptor); },
      [&] { EXPECT_EQ(arguments.securityDescriptor, nullptr); });
  pipe_ = pipes_.create(kPipeName, arguments);
  EXPECT_NE(pipe_, platform::invalidPipe());
}

TEST_F(PipeMemoryTest, TransfersAndCancelNeedNone) {
  createPipe();
  PipeClient client = connected();
  const Bytes sent = {1, 2, 3};
  EXPECT_EQ(withoutMemory([&] { return pipes_.write(pipe_, sent.data(), 3); }), kPipeOk);
  EXPECT_EQ(client.read(3), sent);
  EXPECT_EQ(withoutMemory([&] { return pipes_.flush(pipe_); }), kPipeOk);
  ASSERT_TRUE(client.write(sent));
  Bytes received(3);
  EXPECT_EQ(withoutMemory([&] { return pipes_.read(pipe_, received.data(), 3); }), kPipeOk);
  EXPECT_EQ(received, sent);
  EXPECT_EQ(withoutMemory([this] { return pipes_.cancel(pipe_); }), pipeError(error::kNotFound));
}

TEST_F(PipeMemoryTest, CallsThatWaitAndTheirCancelNeedNone) {
  createPipe();
  const auto expectCancelled = [this](const std::function<bool()>& waiting) {
    PipeCallThread call([&] {
      const ScarceMemory memory(0);
      return waiting();
    });
    call.waitUntilBlocked();
    EXPECT_EQ(withoutMemory([this] { return pipes_.cancel(pipe_); }), kPipeOk);
    EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  };
  const Bytes large(4 * 1024 * 1024);
  expectCancelled([this] { return pipes_.connect(pipe_); });
  PipeClient client = connected();
  expectCancelled([this] { return readByte(); });
  expectCancelled(
      [&] { return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size())); });
  expectCancelled([this] { return pipes_.flush(pipe_); });
}

}  // namespace

}  // namespace zelta::test
