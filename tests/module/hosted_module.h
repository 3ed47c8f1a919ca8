// The module in the product's own host, with an agent on the real pipes.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "host/driver_host.h"
#include "tests/module/module_world.h"

namespace zelta::test {

class HostedModuleTest : public ::testing::Test {
 protected:
  HostedModuleTest() { bringUp(); }

  void bringUp() {
    host::HostOptions options;
    options.driverError = [](const std::string& text) { ADD_FAILURE() << text; };
    host_ = host::DriverHost::load(ZELTA_VSC_MODULE, options);
    host_->bringUp();
    file_ = host_->open(L"dev0");
    ASSERT_NE(file_, nullptr);
  }

  // Whether these tests' host calls the driver as Windows' does. CTest runs them both ways.
  static bool areCallbacksSerialised() {
    const char* const value = std::getenv("ZELTA_HOST_SERIALISE");
    return value != nullptr && std::string(value) == "1";
  }

  // Ends the driver; its log is then complete.
  void end() {
    host_->tearDown();
    EXPECT_TRUE(host_->unload());
  }

  host::IoResult control(std::uint32_t code, const Bytes& input = {}, std::size_t capacity = 0) {
    return file_->control(code, input, capacity, kLong);
  }
  Status statusOf(std::uint32_t code, const Bytes& input = {}, std::size_t capacity = 0) {
    return control(code, input, capacity).status;
  }
  // Submits a request that waits for a card to come or go; returns once it is in the driver.
  std::shared_ptr<host::IoOperation> submitWaiting(std::uint32_t code) {
    return file_->submit(code, {}, 0, nullptr);
  }
  // A control that ends with an exchange with the test.
  std::future<host::IoResult> controlOnThread(std::uint32_t code, const Bytes& input,
                                              std::size_t capacity) {
    return std::async(std::launch::async,
                      [this, code, input, capacity] { return control(code, input, capacity); });
  }

  // Connects the agent, which the driver accepts once a request waits for a card; the driver first
  // asks it for the card's ATR.
  void connectAgent() {
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(agent_.connect());
    if (!agent_.isCardIn()) return;
    ASSERT_TRUE(waiting->wait(kLong));
    ASSERT_EQ(waiting->result().status, status::kSuccess);
  }

  std::uint32_t state() {
    const Bytes output = control(IOCTL_SMARTCARD_GET_STATE, {}, kNumberSize).output;
    EXPECT_EQ(output.size(), kNumberSize);
    return output.size() == kNumberSize ? loadLittleEndian(output.data()) : SCARD_UNKNOWN;
  }
  // The card's response, without the header; empty if the transmit fails.
  Bytes transmit(const Bytes& apdu) {
    const host::IoResult result =
        control(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, apdu),
                apdu.size() + 2 * kTransmitHeaderSize);
    if (result.status != status::kSuccess) return {};
    EXPECT_EQ(result.output.size(), result.information);
    return {result.output.begin() + kTransmitHeaderSize, result.output.end()};
  }

  ModuleWorld world_;
  std::unique_ptr<host::DriverHost> host_;
  std::shared_ptr<host::File> file_;
  CardAgent agent_;
};

}  // namespace zelta::test
