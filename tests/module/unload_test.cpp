// After the module has said that it may go, nothing of it is left.
#include <algorithm>
#include <cstdlib>
#include <thread>

#include "contract/io_controls.h"
#include "contract/wire.h"
#include "tests/doubles/framework/recording_framework.h"
#include "tests/module/hosted_module.h"
#include "tests/support/process_state.h"
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
  agent_.setCardIn(CardAgent::atrOfT1());
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
  agent_.setCardIn(CardAgent::atrOfT1());
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

// Changes the policy and waits until both of the logger's threads that look at the registry have
// seen it: what one of them says about a rotation time is written at the other's threshold.
void changePolicy(ModuleWorld& world, std::uint32_t eventFilterMode, const char* written) {
  world.setPolicy(eventFilterMode);
  const auto deadline = std::chrono::steady_clock::now() + kLong;
  for (int i = 2; world.countInLog(written) == 0; ++i) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    // Every second one is the number before, written in another way.
    world.setRotationTime((i % 2 == 0 ? "" : "0") + std::to_string(i / 2));
    std::this_thread::sleep_for(20ms);  // between two looks
  }
}

// Loads the module, makes an object and lets it go, does what the test wants while the module is
// loaded, and gives it up without a question.
template <typename Action>
void useAndCloseUnasked(Action whileLoaded) {
  std::string reason;
  const platform::ModuleHandle module = platform::openModule(ZELTA_VSC_MODULE, &reason);
  ASSERT_NE(module, nullptr) << reason;
  using Export =
      framework::HRESULT(ZELTA_STDMETHODCALLTYPE*)(framework::REFCLSID, framework::REFIID, void**);
  const auto getClassObject =
      reinterpret_cast<Export>(platform::moduleSymbol(module, "DllGetClassObject"));
  framework::ComPtr<framework::IClassFactory> factory;
  ASSERT_EQ(getClassObject(kDriverClass, framework::IClassFactory::iid, factory.putVoid()), 0);
  framework::ComPtr<framework::IDriverEntry> entry;
  ASSERT_EQ(factory->CreateInstance(nullptr, framework::IDriverEntry::iid, entry.putVoid()), 0);
  entry->OnInitialize(nullptr);
  entry.reset();
  factory.reset();
  whileLoaded();
  EXPECT_TRUE(platform::closeModule(module, &reason)) << reason;
}

class UnaskedTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  ModuleWorld world_;
};

TEST_F(UnaskedTest, ModuleClosedUnaskedRunsItsThreadsOn) {
  EXPECT_EXIT(
      {
        // The first change has been seen before, so that the second is only seen one period later.
        world_.setPolicy(1);
        world_.setRotationTime("0");
        useAndCloseUnasked([&] { changePolicy(world_, 2, "Setting log rotation time"); });
        changePolicy(world_, 3, "the same as the last rotation time");
        world_.removeFolder();
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(UnaskedTest, ModuleClosedUnaskedIsTheSameAtItsNextLoadAndGoesOnceItIsAsked) {
  ASSERT_NO_FATAL_FAILURE(useAndCloseUnasked([] {}));
  ASSERT_NO_FATAL_FAILURE(useAndCloseUnasked([] {}));
  EXPECT_EQ(world_.logFiles(), 1u);
  EXPECT_EQ(bannerLines(world_.log()), 3);
  { const DriverExports asked; }
  EXPECT_FALSE(isMapped(ZELTA_VSC_MODULE));
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
