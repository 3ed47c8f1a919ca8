// The handler's library as pcscd uses it: loaded by its path, called through its symbols, with the
// real driver module below it and an agent with a card.
#pragma once

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "pcsc/ifd_api.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

class HandlerLibrary {
 public:
  using PollFunction = RESPONSECODE (*)(DWORD lun, int milliseconds);
  using StopFunction = RESPONSECODE (*)(DWORD lun);

  HandlerLibrary() { EXPECT_NE(library_, nullptr) << dlerror(); }
  ~HandlerLibrary() { EXPECT_EQ(dlclose(library_), 0); }
  HandlerLibrary(const HandlerLibrary&) = delete;
  HandlerLibrary& operator=(const HandlerLibrary&) = delete;

  template <typename Function>
  Function function(DWORD lun, DWORD tag) const {
    Function found = nullptr;
    DWORD length = sizeof found;
    EXPECT_EQ(getCapabilities(lun, tag, &length, reinterpret_cast<PUCHAR>(&found)), IFD_SUCCESS);
    EXPECT_EQ(length, sizeof found);
    return found;
  }
  PollFunction pollFunction(DWORD lun) const {
    return function<PollFunction>(lun, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT);
  }

 private:
  template <typename Function>
  Function find(const char* name) const {
    const auto function = reinterpret_cast<Function>(dlsym(library_, name));
    EXPECT_NE(function, nullptr) << name;
    return function;
  }

  void* const library_ = dlopen(ZELTA_HANDLER, RTLD_LAZY);

 public:
#define ZELTA_HANDLER_FUNCTION(name, symbol) \
  const decltype(&(symbol)) name = find<decltype(&(symbol))>(#symbol)  // NOLINT: declares it
  ZELTA_HANDLER_FUNCTION(createByName, IFDHCreateChannelByName);
  ZELTA_HANDLER_FUNCTION(create, IFDHCreateChannel);
  ZELTA_HANDLER_FUNCTION(close, IFDHCloseChannel);
  ZELTA_HANDLER_FUNCTION(getCapabilities, IFDHGetCapabilities);
  ZELTA_HANDLER_FUNCTION(setCapabilities, IFDHSetCapabilities);
  ZELTA_HANDLER_FUNCTION(setProtocol, IFDHSetProtocolParameters);
  ZELTA_HANDLER_FUNCTION(power, IFDHPowerICC);
  ZELTA_HANDLER_FUNCTION(transmit, IFDHTransmitToICC);
  ZELTA_HANDLER_FUNCTION(control, IFDHControl);
  ZELTA_HANDLER_FUNCTION(presence, IFDHICCPresence);
#undef ZELTA_HANDLER_FUNCTION
};

// The module's surroundings; made before the library is loaded.
class HandlerWorld {
 public:
  // For a process that ends without destructors.
  void removeFolder() const { std::filesystem::remove_all(folder_.path()); }

 private:
  TempFolder folder_;
  ScopedVariable module_{"ZELTA_MODULE", ZELTA_VSC_MODULE};
  ScopedVariable pipes_{"ZELTA_PIPE_ROOT", folder_.file("pipe")};
  ScopedVariable registry_{"ZELTA_REGISTRY", folder_.file("registry.reg")};
  ScopedVariable data_{"ZELTA_PROGRAM_DATA", folder_.file("data")};
};

class HandlerFixture : public testing::Test {
 protected:
  static constexpr DWORD kLun = 0;
  static constexpr DWORD kOtherLun = 0x10000;
  static constexpr int kLong = 30000;  // milliseconds

  // The library may be unloaded only after its threads have ended.
  void TearDown() override {
    if (handler_->presence(kLun) == IFD_NO_SUCH_DEVICE) return;
    EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
  }

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
  // Waits like pcscd's event thread.
  void waitForPresence(RESPONSECODE wanted) {
    const auto poll = handler_->pollFunction(kLun);
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

  HandlerWorld world_;
  std::optional<HandlerLibrary> handler_{std::in_place};
  CardAgent agent_;
  SCARD_IO_HEADER received_ = {};
};

}  // namespace zelta::test
