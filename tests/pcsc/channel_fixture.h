// A channel on a reader that the test plays.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "pcsc/channel.h"
#include "tests/doubles/framework/fake_driver_host.h"

namespace zelta::test {

// Collects log lines as "level text".
class LogLines {
 public:
  pcsc::Log log() {
    return [this](pcsc::LogLevel level, const std::string& text) {
      const platform::MutexLock lock(mutex_);
      lines_.push_back(std::to_string(static_cast<int>(level)) + " " + text);
      changed_.notifyAll();
    };
  }
  std::vector<std::string> lines() const {
    const platform::MutexLock lock(mutex_);
    return lines_;
  }

  bool waitForLines(std::size_t count, std::chrono::milliseconds limit) {
    platform::MutexLock lock(mutex_);
    return changed_.waitFor(
        lock, limit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return lines_.size() >= count; });
  }

 private:
  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::vector<std::string> lines_ ZELTA_GUARDED_BY(mutex_);
};

class ChannelTest : public testing::Test {
 protected:
  static constexpr framework::HRESULT kGenFailure = framework::hresult(0x8007001F);
  const Bytes kAtr{0x3B, 0x95, 0x13, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00};

  ChannelTest() {
    answerPower(succeededWith(kAtr));
    channel_.emplace(
        "dev0", reader_->open(), [] { return nullptr; }, log_->log());
  }

  // A command as pcscd sends it; the answer is taken into a buffer of that size.
  pcsc::Reply transmit(DWORD protocol, const Bytes& command, std::size_t capacity) {
    Bytes answer(capacity);
    std::size_t size = 0;
    const RESPONSECODE code = channel_->transmit(
        {protocol, {command.data(), command.size()}, {answer.data(), answer.size()}}, &size);
    answer.resize(size);
    return {code, std::move(answer)};
  }

  void answerPower(host::IoResult result) {
    reader_->answer(IOCTL_SMARTCARD_POWER, [result](const auto&) { return result; });
  }

  // pcscd's polling function, with what it does of its own accord afterwards.
  void poll() { channel_->awaitChange(FakeReader::kLimit); }

  void insert() {
    reader_->insertCard();
    poll();
    ASSERT_EQ(channel_->presence(), IFD_SUCCESS);
  }
  void insertAndPowerUp() {
    insert();
    ASSERT_EQ(channel_->power(IFD_POWER_UP).code, IFD_SUCCESS);
  }
  void remove() {
    reader_->removeCard();
    poll();
    ASSERT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  }

  const std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();
  const std::shared_ptr<LogLines> log_ = std::make_shared<LogLines>();
  std::optional<pcsc::Channel> channel_;
};

}  // namespace zelta::test
