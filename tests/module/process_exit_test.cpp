// The process ends with the driver still up and its threads at work.
#include <cstdlib>
#include <thread>

#include "contract/io_controls.h"
#include "tests/module/hosted_module.h"

namespace zelta::test {
namespace {

// In a process of its own, made anew: no thread of the test's is there.
class ProcessExitTest : public HostedModuleTest {
 protected:
  static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Callers on three threads that never end, and a fourth that ends the process.
[[noreturn]] void exitUnderLoad(host::File& file, const ModuleWorld& world) {
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 3; ++caller) {
    callers.emplace_back([&file] {
      for (;;) file.control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64, kLong);
    });
  }
  file.submit(IOCTL_SMARTCARD_IS_ABSENT, {}, 0, nullptr);
  callers.emplace_back([&world] {
    world.removeFolder();
    std::exit(0);
  });
  for (std::thread& caller : callers) caller.join();
  std::abort();
}

TEST_F(ProcessExitTest, ExitFromAnotherThreadWithTheDriverUpEndsTheProcess) {
  end();
  EXPECT_EXIT(
      {
        bringUp();
        agent_.setCardIn(CardAgent::atrOfT1());
        connectAgent();
        exitUnderLoad(*file_, world_);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ProcessExitTest, ExitWithAWaitingRequestAndNoAgentEndsTheProcess) {
  end();
  EXPECT_EXIT(
      {
        bringUp();
        submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
        world_.removeFolder();
        std::thread([] { std::exit(0); }).join();
        std::abort();
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zelta::test
