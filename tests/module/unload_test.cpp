// After the module has said that it may go, nothing of it is left.
#include <algorithm>

#include "tests/module/hosted_module.h"
#include "tests/support/process_state.h"
#include "tests/support/recording_framework.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

class UnloadTest : public HostedModuleTest {
 protected:
  // Once settles what the process itself opens for good, GoogleTest's own thread with it.
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(connectAgent());
    end();
    agent_.die();
    file_.reset();
    EXPECT_FALSE(isMapped(ZELTA_VSC_MODULE));
    threads_ = threadCount();
    files_ = openFiles();
  }

  void expectNothingLeft() {
    EXPECT_FALSE(isMapped(ZELTA_VSC_MODULE));
    EXPECT_EQ(threadCount(), threads_);
    EXPECT_EQ(openFiles(), files_);
    EXPECT_FALSE(world_.pipeExists(commandPipeName(0)));
    EXPECT_FALSE(world_.pipeExists(eventPipeName(0)));
  }

  std::size_t threads_ = 0;
  std::vector<std::string> files_;
};

TEST_F(UnloadTest, NothingIsLeftOfADriverThatWaitsForItsAgent) {
  for (int round = 0; round < repetitions(60); ++round) {
    bringUp();
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    end();
    EXPECT_EQ(waiting->result().status, answer::kCancelled);
    ASSERT_NO_FATAL_FAILURE(expectNothingLeft());
  }
}

TEST_F(UnloadTest, NothingIsLeftOfADriverWithAnAgentAndWaitingRequests) {
  card_.insert();
  for (int round = 0; round < repetitions(60); ++round) {
    bringUp();
    connectAgent();
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    end();
    EXPECT_EQ(waiting->result().status, answer::kCancelled);
    agent_.die();
    ASSERT_NO_FATAL_FAILURE(expectNothingLeft());
  }
}

TEST_F(UnloadTest, NothingIsLeftOfADriverThatWasNeverBroughtUp) {
  for (int round = 0; round < repetitions(50); ++round) {
    host_ = host::DriverHost::load(ZELTA_VSC_MODULE);
    ASSERT_TRUE(host_->unload());
    ASSERT_NO_FATAL_FAILURE(expectNothingLeft());
  }
}

TEST_F(UnloadTest, UnloadingReturnsAtOnceWhenTheModuleHasAgreed) {
  bringUp();
  connectAgent();
  host_->tearDown();
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(host_->unload());
  // Threads of the driver's would be waited for, or for ever.
  EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
}

TEST_F(UnloadTest, CallsWhileTheDriverGoesDownAreCarriedOutOrRefused) {
  card_.insert();
  for (int round = 0; round < repetitions(20); ++round) {
    bringUp();
    connectAgent();
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 3; ++caller) {
      callers.emplace_back([&, file = file_] {
        for (;;) {
          const auto result = file->control(IOCTL_SMARTCARD_POWER, number(1), 64, kLong);
          if (result.status == host::kDeviceGone) return;
          if (result.status == host::kTimedOut) ++wrong;
        }
      });
    }
    control(IOCTL_SMARTCARD_POWER, number(1), 64);
    host_->tearDown();
    ASSERT_TRUE(host_->unload());
    for (std::thread& caller : callers) caller.join();
    agent_.die();
    EXPECT_EQ(wrong, 0);
    ASSERT_NO_FATAL_FAILURE(expectNothingLeft());
  }
}

// The banner's lines in a log.
long bannerLines(const std::vector<LogLine>& log) {
  return std::count_if(log.begin(), log.end(), [](const LogLine& line) {
    return line.level == "<CRITICAL>" && line.resultCode == 0 &&
           (line.message == std::string(74, '-') ||
            line.message.find("Vornhalt Virtual Smartcard Reader driver build ") == 0);
  });
}

TEST(BannerTest, IsWrittenOncePerLoadedModule) {
  const ModuleWorld world;
  for (long load = 1; load <= 2; ++load) {
    {
      const DriverExports exports;
      for (int driver = 0; driver < 3; ++driver) {
        RecordingFramework framework(exports.driver());
        EXPECT_EQ(framework.initialize(), framework::kOk);
        framework.end();
      }
    }
    EXPECT_EQ(bannerLines(world.log()), 3 * load);
  }
}

}  // namespace
}  // namespace zelta::test
