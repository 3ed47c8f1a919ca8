// The handler's library with one channel, an agent with a card, and pcscd's calls.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tests/pcsc/handler_library.h"

namespace zelta::test {

inline constexpr DWORD kLun = 0;
inline constexpr DWORD kOtherLun = 0x10000;
inline constexpr int kLong = 30000;  // milliseconds

class HandlerFixture : public testing::Test {
 protected:
  RESPONSECODE open(const char* name = "zelta:0", DWORD lun = kLun) {
    std::string writable = name;
    return handler_->createByName(lun, writable.data());
  }
  void openWithCard() {
    ASSERT_EQ(open(), IFD_SUCCESS);
    agent_.setCardIn();
    ASSERT_TRUE(agent_.connect());
    waitForPresence(IFD_SUCCESS);
  }
  // As pcscd's event thread does.
  void waitForPresence(RESPONSECODE wanted) {
    const auto poll =
        handler_->function<HandlerLibrary::PollFunction>(kLun, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
    while (handler_->presence(kLun) != wanted) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      ASSERT_EQ(poll(kLun, kLong), IFD_SUCCESS);
    }
  }
  RESPONSECODE power(DWORD action, Bytes* atr) {
    atr->assign(MAX_ATR_SIZE, 0);
    DWORD length = atr->size();
    const RESPONSECODE code = handler_->power(kLun, action, atr->data(), &length);
    atr->resize(length);
    return code;
  }
  RESPONSECODE transmit(const Bytes& command, Bytes* answer, DWORD protocol = 1) {
    Bytes tx = command;
    answer->assign(MAX_BUFFER_SIZE_EXTENDED, 0);
    DWORD length = answer->size();
    received_ = {3, 0};  // as pcscd leaves it
    const RESPONSECODE code =
        handler_->transmit(kLun, {protocol, sizeof(SCARD_IO_HEADER)}, tx.data(), tx.size(),
                           answer->data(), &length, &received_);
    answer->resize(length);
    return code;
  }
  RESPONSECODE attribute(DWORD tag, Bytes* value, DWORD capacity = MAX_BUFFER_SIZE) {
    value->assign(capacity, 0);
    DWORD length = capacity;
    const RESPONSECODE code = handler_->getCapabilities(kLun, tag, &length, value->data());
    value->resize(code == IFD_SUCCESS ? length : 0);
    return code;
  }

  HandlerWorld world_;
  std::optional<HandlerLibrary> handler_{std::in_place};
  CardAgent agent_;
  SCARD_IO_HEADER received_ = {};
};

}  // namespace zelta::test
