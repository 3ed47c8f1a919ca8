// Channels on readers that the test plays.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/status.h"
#include "pcsc/channel_table.h"
#include "tests/doubles/framework/fake_driver_host.h"
#include "tests/support/collected.h"

namespace zelta::test {

// Collects log lines as "level text".
class LogLines {
 public:
  pcsc::Log log() {
    return [this](pcsc::LogLevel level, const std::string& text) {
      lines_.add(std::to_string(static_cast<int>(level)) + " " + text);
    };
  }
  std::vector<std::string> lines() const { return lines_.all(); }
  bool waitForLines(std::size_t count) { return lines_.waitFor(count, FakeReader::kLimit); }

 private:
  Collected<std::string> lines_;
};

inline constexpr framework::HRESULT kGenFailure = status::kGenFailure;
inline const Bytes kAtr{0x3B, 0x95, 0x13, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00};

// Sends a command like pcscd, with a buffer of that size for the answer.
inline pcsc::Reply transmit(pcsc::Channel& channel, DWORD protocol, const Bytes& command,
                            std::size_t capacity) {
  Bytes answer(capacity);
  const pcsc::TransmitReply reply = channel.transmit(
      {protocol, {command.data(), command.size()}, {answer.data(), answer.size()}});
  answer.resize(reply.answerSize);
  return {reply.code, std::move(answer)};
}

class ChannelTest : public testing::Test {
 protected:
  ChannelTest() {
    reader_->answerWith(IOCTL_SMARTCARD_POWER, succeededWith(kAtr));
    channel_.emplace(
        "dev0", reader_->open(), [] { return nullptr; }, log_->log());
  }

  // Calls the channel's polling function, like pcscd's polling thread.
  void poll() { channel_->awaitChange(FakeReader::kLimit); }

  void insert() {
    reader_->insertCard();
    poll();
    ASSERT_EQ(channel_->checkPresence(), IFD_SUCCESS);
  }
  void insertAndPowerUp() {
    insert();
    ASSERT_EQ(channel_->power(IFD_POWER_UP).code, IFD_SUCCESS);
  }
  void remove() {
    reader_->removeCard();
    poll();
    ASSERT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
  }
  // Expects that pcscd sees the card, which has not moved, leave and come back.
  void expectReinsertion() {
    EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
    poll();  // for the removal
    EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
    poll();  // for the card that is back
    EXPECT_EQ(channel_->checkPresence(), IFD_SUCCESS);
  }

  const std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();
  const std::shared_ptr<LogLines> log_ = std::make_shared<LogLines>();
  std::optional<pcsc::Channel> channel_;
};

// A table of channels over a host with two readers.
class TableTest : public testing::Test {
 protected:
  static constexpr DWORD kLun = 0;
  static constexpr DWORD kOtherLun = 0x10000;

  const std::shared_ptr<FakeHostRecord> record_ = std::make_shared<FakeHostRecord>();
  const std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();  // dev0
  const std::shared_ptr<FakeReader> other_ = std::make_shared<FakeReader>();   // dev1
  const std::shared_ptr<LogLines> log_ = std::make_shared<LogLines>();
  pcsc::ChannelTable table_{{[this](const std::string& path, host::HostOptions options) {
                               return FakeDriverHost::load(path, std::move(options), record_,
                                                           {{L"dev0", reader_}, {L"dev1", other_}});
                             },
                             [] { return std::string("/module.so"); }, log_->log()}};
};

}  // namespace zelta::test
