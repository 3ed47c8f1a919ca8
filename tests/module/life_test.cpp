// The module's lifetime: once it agrees to be unloaded, nothing of it is left; a process may end
// whatever its driver is doing.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "contract/class_ids.h"
#include "tests/doubles/framework/fake_framework.h"
#include "tests/module/hosted_module.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

class UnloadTest : public HostedModuleTest {
 protected:
  // One run first, for everything that the process opens for good, including GoogleTest's own
  // thread.
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
    EXPECT_LE(threadsLeft(threads_), threads_);
    EXPECT_EQ(openFiles(), files_);
    EXPECT_FALSE(world_.pipeExists(commandPipeName(0)));
    EXPECT_FALSE(world_.pipeExists(eventPipeName(0)));
  }

  std::size_t threads_ = 0;
  std::vector<std::string> files_;
};

TEST_F(UnloadTest, DriverThatWaitsForItsAgent_LeavesNothing) {
  for (int round = 0; round < repetitions(40); ++round) {
    bringUp();
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    end();
    EXPECT_EQ(waiting->result().status, status::kCancelled);
    ASSERT_NO_FATAL_FAILURE(expectNothingLeft());
  }
}

TEST_F(UnloadTest, DriverWithAnAgentAndAWaitingRequest_LeavesNothing) {
  agent_.setCardIn(CardAgent::atrOfT1());
  for (int round = 0; round < repetitions(40); ++round) {
    bringUp();
    connectAgent();
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    end();
    EXPECT_EQ(waiting->result().status, status::kCancelled);
    agent_.die();
    ASSERT_NO_FATAL_FAILURE(expectNothingLeft());
  }
}

TEST_F(UnloadTest, DriverThatWasNeverBroughtUp_LeavesNothing) {
  host_ = host::DriverHost::load(ZELTA_VSC_MODULE);
  ASSERT_TRUE(host_->unload());
  expectNothingLeft();
}

using DeviceTest = HostedModuleTest;

TEST_F(DeviceTest, BroughtUpAnew_GoesOnInItsLogFile) {
  host_->tearDown();
  host_->bringUp();
  end();
  EXPECT_EQ(world_.logFiles(), 1u);
  EXPECT_EQ(world_.countInLog("Start section:CMyDriver::OnDeinitialize"), 2u);
}

// The banner's lines in a log.
long bannerLines(const std::vector<LogLine>& log) {
  return std::count_if(log.begin(), log.end(), [](const LogLine& line) {
    return line.level == "<CRITICAL>" && line.resultCode == 0 &&
           (line.message == std::string(74, '-') ||
            line.message.find("Vornhalt Virtual Smartcard Reader driver build ") == 0);
  });
}

class LoadedModuleTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Like a tool: loads the module and has it registered, runs the action while the module is
  // loaded, and unloads it without asking.
  template <typename Action>
  static void registerAndCloseUnasked(Action whileLoaded) {
    const DriverExports exports(DriverExports::AtTheEnd::kIsNotAsked);
    EXPECT_EQ(exports.call("DllRegisterServer"), framework::kOk);
    whileLoaded();
  }

  // Like a host: brings the driver up, takes it down, and unloads the module without asking.
  static void runAndCloseUnasked() {
    const DriverExports exports(DriverExports::AtTheEnd::kIsNotAsked);
    FakeFramework framework(exports.driver());
    EXPECT_TRUE(framework.bringUp());
    framework.dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    framework.takeDown();
    framework.deinitialize();
  }

  // Changes the policy and waits until both of the logger's threads that read the registry have
  // seen it: one writes about a rotation time at the threshold that the other sets.
  void changePolicy(std::uint32_t eventFilterMode, const char* written) {
    world_.setPolicy(eventFilterMode);
    const auto deadline = std::chrono::steady_clock::now() + kLong;
    for (int i = 2; world_.countInLog(written) == 0; ++i) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline);
      // Every second one is the number before, written in another way.
      world_.setRotationTime((i % 2 == 0 ? "" : "0") + std::to_string(i / 2));
      std::this_thread::sleep_for(20ms);  // between two looks
    }
  }

  ModuleWorld world_;
};

TEST_F(LoadedModuleTest, ClosedUnaskedAfterItsDriverIsGone_LeavesNothing) {
  runAndCloseUnasked();  // for everything that the process opens for good
  const std::size_t threads = threadCount();
  const std::vector<std::string> files = openFiles();
  for (int round = 0; round < repetitions(20); ++round) {
    runAndCloseUnasked();
    ASSERT_FALSE(isMapped(ZELTA_VSC_MODULE));
    ASSERT_LE(threadsLeft(threads), threads);
    ASSERT_EQ(openFiles(), files);
  }
}

TEST_F(LoadedModuleTest, DriverThatWentWhileTheModuleStays_HasEndedItsThreads) {
  const DriverExports exports;
  exports.driver()->OnInitialize(nullptr);
  const std::size_t threads = threadCount();
  auto driver = exports.driver();
  EXPECT_GT(threadCount(), threads) << "the logger's";
  driver->OnInitialize(nullptr);
  driver.reset();
  EXPECT_LE(threadsLeft(threads), threads);
  EXPECT_EQ(bannerLines(world_.log()), 3);
}

TEST_F(LoadedModuleTest, RegisteredAndClosedUnasked_RunsItsThreadsOn) {
  EXPECT_EXIT(
      {
        // The first change has been seen before, so that the second is only seen one period later.
        world_.setPolicy(1);
        world_.setRotationTime("0");
        registerAndCloseUnasked([&] { changePolicy(2, "Setting log rotation time"); });
        changePolicy(3, "the same as the last rotation time");
        world_.removeFolder();
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(LoadedModuleTest, RegisteredAndClosedUnasked_IsTheSameAtItsNextLoadAndGoesOnceItIsAsked) {
  registerAndCloseUnasked([] {});
  registerAndCloseUnasked([] {});
  EXPECT_TRUE(isMapped(ZELTA_VSC_MODULE));
  EXPECT_EQ(world_.logFiles(), 1u);
  { const DriverExports asked; }
  EXPECT_FALSE(isMapped(ZELTA_VSC_MODULE));
}

TEST_F(LoadedModuleTest, EachLoad_WritesTheBannerOnce) {
  for (long load = 1; load <= 2; ++load) {
    {
      const DriverExports exports;
      for (int driver = 0; driver < 3; ++driver) {
        EXPECT_EQ(exports.driver()->OnInitialize(nullptr), framework::kOk);
      }
    }
    EXPECT_EQ(bannerLines(world_.log()), 3 * load);
  }
}

TEST_F(LoadedModuleTest, UnusedModuleAskedWhetherItMayGo_BeginsNoLogFile) {
  const DriverExports exports;
  for (int round = 0; round < 7; ++round) EXPECT_EQ(exports.canUnload(), framework::kOk);
  EXPECT_EQ(world_.logFiles(), 0u);
  exports.factory();
  for (int round = 0; round < 7; ++round) EXPECT_EQ(exports.canUnload(), framework::kOk);
  EXPECT_EQ(world_.logFiles(), 1u);
  EXPECT_EQ(world_.countInLog("Start section:DllCanUnloadNow"), 0u);
  const auto held = exports.factory();
  for (int round = 0; round < 7; ++round) EXPECT_EQ(exports.canUnload(), framework::kFalse);
  EXPECT_EQ(world_.logFiles(), 2u);
  EXPECT_EQ(world_.countInLog("Start section:DllCanUnloadNow"), 7u);
}

TEST_F(LoadedModuleTest, ModuleAskedWhetherItMayGoWhileItIsUsed_ServesItsUsers) {
  const DriverExports exports;
  std::atomic<int> users{3};
  std::vector<std::thread> threads;
  for (int user = 0; user < 3; ++user) {
    threads.emplace_back([&] {
      for (int round = 0; round < repetitions(100); ++round) EXPECT_TRUE(exports.driver());
      --users;
    });
  }
  threads.emplace_back([&] {
    while (users > 0) exports.canUnload();
  });
  while (users > 0) exports.canUnload();
  for (std::thread& thread : threads) thread.join();
}

// In a new separate process, without the test's threads.
class ProcessExitTest : public HostedModuleTest {
 protected:
  static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Callers on three threads that never end, and a fourth that ends the process.
  [[noreturn]] void exitUnderLoad() {
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 3; ++caller) {
      callers.emplace_back([this] {
        for (;;) control(IOCTL_SMARTCARD_POWER, numberBytes(SCARD_COLD_RESET), 64);
      });
    }
    submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    callers.emplace_back([this] {
      world_.removeFolder();
      std::exit(0);
    });
    for (std::thread& caller : callers) caller.join();
    std::abort();
  }
};

TEST_F(ProcessExitTest, ExitFromAnotherThreadUnderLoad_EndsTheProcess) {
  end();
  EXPECT_EXIT(
      {
        bringUp();
        agent_.setCardIn(CardAgent::atrOfT1());
        connectAgent();
        exitUnderLoad();
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zelta::test
