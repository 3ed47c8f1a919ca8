// The handler on the real driver, whose server thread ends because nobody asks for a card for ten
// seconds: the handler's presence thread stands still for longer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "pcsc/channel_table.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/pcsc/channel_fixture.h"
#include "tests/support/temp_folder.h"

namespace zelta::pcsc {
namespace {

using testing::ElementsAre;

constexpr std::chrono::seconds kLimit{60};

// Requests for an insertion wait here before they get to the driver, while it is closed.
class Barrier {
 public:
  void close() {
    const platform::MutexLock lock(mutex_);
    closed_ = true;
  }
  void open() {
    const platform::MutexLock lock(mutex_);
    closed_ = false;
    changed_.notifyAll();
  }
  void pass() {
    platform::MutexLock lock(mutex_);
    waiting_ = closed_;
    changed_.notifyAll();
    changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !closed_; });
  }
  bool awaitSomebody() {
    platform::MutexLock lock(mutex_);
    return changed_.waitFor(lock, kLimit,
                            [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return waiting_; });
  }

 private:
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool closed_ ZELTA_GUARDED_BY(mutex_) = false;
  bool waiting_ ZELTA_GUARDED_BY(mutex_) = false;
};

class BarredFile final : public host::File {
 public:
  BarredFile(std::shared_ptr<host::File> file, Barrier& barrier)
      : file_(std::move(file)), barrier_(barrier) {}

  host::IoResult control(std::uint32_t code, const Bytes& input, std::size_t outputCapacity,
                         std::chrono::milliseconds limit) override {
    return file_->control(code, input, outputCapacity, limit);
  }
  host::IoEnd controlInParts(std::uint32_t code, const host::InputParts& input,
                             const host::OutputParts& output,
                             std::chrono::milliseconds limit) override {
    return file_->controlInParts(code, input, output, limit);
  }
  std::shared_ptr<host::IoOperation> submit(std::uint32_t code, const Bytes& input,
                                            std::size_t outputCapacity,
                                            Completion completion) override {
    if (code == IOCTL_SMARTCARD_IS_PRESENT) barrier_.pass();
    return file_->submit(code, input, outputCapacity, std::move(completion));
  }

 private:
  const std::shared_ptr<host::File> file_;
  Barrier& barrier_;
};

class BarredHost final : public host::DriverHost {
 public:
  BarredHost(std::unique_ptr<host::DriverHost> host, Barrier& barrier)
      : host_(std::move(host)), barrier_(barrier) {}

  void bringUp() override { host_->bringUp(); }
  void tearDown() noexcept override { host_->tearDown(); }
  bool unload() override { return host_->unload(); }
  std::shared_ptr<host::File> open(const std::wstring& name) override {
    std::shared_ptr<host::File> file = host_->open(name);
    return file ? std::make_shared<BarredFile>(std::move(file), barrier_) : nullptr;
  }
  std::vector<std::wstring> interfaces() const override { return host_->interfaces(); }

 private:
  const std::unique_ptr<host::DriverHost> host_;
  Barrier& barrier_;
};

class DriverRevivalTest : public testing::Test {
 protected:
  DriverRevivalTest()
      : table_({[this](const std::string& path, host::HostOptions options) {
                  return std::make_unique<BarredHost>(
                      host::DriverHost::load(path, std::move(options)), barrier_);
                },
                [] { return std::string(ZELTA_VSC_MODULE); }, log_->log()}) {}

  // As pcscd's event thread does.
  void waitForPresence(RESPONSECODE wanted) {
    const ChannelTable::Use use(table_, 0);
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (use.channel()->presence() != wanted) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      use.channel()->awaitChange(std::chrono::milliseconds(1000));
    }
  }

  test::TempFolder folder_;
  test::ScopedVariable pipes_{"ZELTA_PIPE_ROOT", folder_.file("pipe")};
  test::ScopedVariable registry_{"ZELTA_REGISTRY", folder_.file("registry.reg")};
  test::ScopedVariable data_{"ZELTA_PROGRAM_DATA", folder_.file("data")};
  Barrier barrier_;
  const std::shared_ptr<test::LogLines> log_ = std::make_shared<test::LogLines>();
  ChannelTable table_;
  test::CardAgent agent_;
};

TEST_F(DriverRevivalTest, ServerThreadThatEndedForWantOfARequestIsBroughtBack) {
  ASSERT_EQ(table_.open(0, 0), IFD_SUCCESS);
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  waitForPresence(IFD_SUCCESS);
  barrier_.close();
  agent_.die();
  ASSERT_TRUE(barrier_.awaitSomebody());
  std::this_thread::sleep_for(
      std::chrono::seconds(11));  // the server thread's time is the driver's
  barrier_.open();
  EXPECT_TRUE(log_->waitForLines(2, kLimit));
  EXPECT_THAT(log_->lines(),
              ElementsAre("2 reader dev0 does not serve: nobody asked for a card within 10 s "
                          "(5023); the device is restarted until it serves",
                          "2 reader dev0 serves again"));
  EXPECT_TRUE(agent_.connect());
  waitForPresence(IFD_SUCCESS);
  {
    const ChannelTable::Use use(table_, 0);
    EXPECT_EQ(use.channel()->power(IFD_POWER_UP).code, IFD_SUCCESS);
  }
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
}

}  // namespace
}  // namespace zelta::pcsc
