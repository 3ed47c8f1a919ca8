// Memory that runs out in the system's pipes: a call fails with ERROR_NOT_ENOUGH_MEMORY (8) or
// succeeds, partial work is undone, and transfers, cancel and close need no memory at all.
#include <algorithm>
#include <filesystem>
#include <functional>

#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/process_state.h"
#include "tests/support/scarce_memory.h"

namespace zelta::test {

namespace {

class PipeMemoryTest : public SystemPipeTest {
 protected:
  // `check` runs after each failure.
  static void withEveryShortage(const std::function<bool()>& call,
                                const std::function<void()>& check) {
    for (MemorySweep sweep; sweep.next();) {
      SCOPED_TRACE(sweep.allocations());
      const PipeOutcome outcome = outcomeOf([&] {
        bool ok = false;
        sweep.run([&]() noexcept { ok = call(); });
        return ok;
      });
      EXPECT_EQ(outcome, sweep.ranOut() ? pipeError(error::kNotEnoughMemory) : kPipeOk);
      if (sweep.ranOut()) check();
    }
  }

  static PipeOutcome withoutMemory(const std::function<bool()>& call) {
    return outcomeOf([&] {
      const ScarceMemory memory(0);
      return call();
    });
  }

  std::size_t filesOfPipes() const {
    const std::filesystem::recursive_directory_iterator all(folder_.path());
    return static_cast<std::size_t>(std::count_if(
        begin(all), end(all), [](const auto& entry) { return !entry.is_directory(); }));
  }
};

TEST_F(PipeMemoryTest, CreateThatFails_LeavesNothing) {
  platform::PipeArguments arguments;
  ASSERT_TRUE(pipes_.convertSecurityDescriptor(kPipeSddl, &arguments.securityDescriptor));
  const std::string name = kPipeName;
  const std::size_t descriptors = openFiles().size();
  const auto createPipe = [&] {
    pipe_ = pipes_.create(name, arguments);
    return pipe_ != platform::invalidPipe();
  };
  withEveryShortage(createPipe, [&] {
    EXPECT_EQ(filesOfPipes(), 0u);
    EXPECT_EQ(openFiles().size(), descriptors);
  });
  connected();
}

TEST_F(PipeMemoryTest, ConversionThatFails_CanBeTriedAgain) {
  // A text that no other test has converted: each text is kept.
  const std::string sddl = "D:(A;;GA;;;LS)(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;AN)";
  platform::PipeArguments arguments;
  withEveryShortage(
      [&] { return pipes_.convertSecurityDescriptor(sddl, &arguments.securityDescriptor); },
      [&] { EXPECT_EQ(arguments.securityDescriptor, nullptr); });
  pipe_ = pipes_.create(kPipeName, arguments);
  EXPECT_NE(pipe_, platform::invalidPipe());
}

// The place for the next client needs memory.
TEST_F(PipeMemoryTest, DisconnectThatFails_DropsTheClientAndTheNextConnectMakesGood) {
  createPipe();
  PipeClient client = connected();
  EXPECT_EQ(withoutMemory([this] { return pipes_.disconnect(pipe_); }),
            pipeError(error::kNotEnoughMemory));
  EXPECT_TRUE(client.waitForDrop());
  PipeCallThread connecting(connect_);
  expectServed(connecting);
}

TEST_F(PipeMemoryTest, TransfersCancelAndClose_NeedNone) {
  createPipe();
  PipeClient client = connected();
  const Bytes sent = {1, 2, 3};
  EXPECT_EQ(withoutMemory([&] { return pipes_.write(pipe_, sent.data(), 3); }), kPipeOk);
  EXPECT_EQ(client.read(3), sent);
  EXPECT_EQ(withoutMemory(flush_), kPipeOk);
  ASSERT_TRUE(client.write(sent));
  EXPECT_EQ(withoutMemory(readByte_), kPipeOk);
  EXPECT_EQ(withoutMemory([this] { return pipes_.cancel(pipe_); }), pipeError(error::kNotFound));
  EXPECT_EQ(withoutMemory([this] { return pipes_.close(pipe_); }), kPipeOk);
  EXPECT_EQ(filesOfPipes(), 0u);
  pipe_ = platform::noPipe();
}

TEST_F(PipeMemoryTest, CallsThatWaitAndTheirCancel_NeedNone) {
  createPipe();
  const auto expectCancelled = [this](const std::function<bool()>& waiting) {
    BlockedPipeCall call([&] {
      const ScarceMemory memory(0);
      return waiting();
    });
    EXPECT_EQ(withoutMemory([this] { return pipes_.cancel(pipe_); }), kPipeOk);
    EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  };
  expectCancelled(connect_);
  const PipeClient client = connected();
  for (const auto& call : {readByte_, writeLarge_, flush_}) expectCancelled(call);
}

}  // namespace

}  // namespace zelta::test
