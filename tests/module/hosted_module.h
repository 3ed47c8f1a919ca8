// The module in the product's own host, with an agent on the real pipes.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "contract/bytes.h"
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

  // The end of the driver, after which its log is complete.
  void end() {
    host_->tearDown();
    EXPECT_TRUE(host_->unload());
  }

  host::IoResult control(std::uint32_t code, const Bytes& input = {}, std::size_t capacity = 0) {
    return file_->control(code, input, capacity, kLong);
  }
  framework::HRESULT status(std::uint32_t code, const Bytes& input = {}, std::size_t capacity = 0) {
    return control(code, input, capacity).status;
  }
  // A request that waits for a card to come or go; returned once it is in the driver.
  std::shared_ptr<host::IoOperation> submitWaiting(std::uint32_t code) {
    return file_->submit(code, {}, 0, nullptr);
  }
  // One that ends with an exchange which the test takes part in.
  std::future<host::IoResult> controlOnThread(std::uint32_t code, const Bytes& input,
                                              std::size_t capacity) {
    return std::async(std::launch::async,
                      [this, code, input, capacity] { return control(code, input, capacity); });
  }

  // The agent comes, as it can once somebody waits for a card, and is let in: the driver asks it
  // for the card's ATR first of all.
  void connectAgent() {
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(agent_.connect());
    if (!agent_.isCardIn()) return;
    ASSERT_TRUE(waiting->wait(kLong));
    ASSERT_EQ(waiting->result().status, answer::kSuccess);
  }
  // With a card that is ready for commands.
  void connectWithPoweredCard(std::uint32_t protocol, const Bytes& atr = CardAgent::atrOfT1()) {
    agent_.setCardIn(atr);
    connectAgent();
    ASSERT_EQ(status(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64), answer::kSuccess);
    ASSERT_EQ(status(IOCTL_SMARTCARD_SET_PROTOCOL, number(protocol)), answer::kSuccess);
  }
  // The reader serves a new agent and its card.
  void expectWorkingReader() {
    agent_.die();
    connectWithPoweredCard(SCARD_PROTOCOL_T1);
    EXPECT_EQ(transmit({0x00, 0xB0, 0x01}), CardAgent::responseTo({0x00, 0xB0, 0x01}));
  }

  std::uint32_t state() { return toNumber(control(IOCTL_SMARTCARD_GET_STATE, {}, 4).output); }
  host::IoResult attribute(std::uint32_t tag) {
    return control(IOCTL_SMARTCARD_GET_ATTRIBUTE, number(tag), 256);
  }
  // The card's response, without the header; empty where the transmit fails.
  Bytes transmit(const Bytes& apdu, std::uint32_t protocol = SCARD_PROTOCOL_T1) {
    const host::IoResult result = control(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(protocol, apdu),
                                          apdu.size() + 2 * kTransmitHeaderSize);
    if (result.status != answer::kSuccess) return {};
    EXPECT_EQ(result.output.size(), result.information);
    return {result.output.begin() + kTransmitHeaderSize, result.output.end()};
  }

  ModuleWorld world_;
  std::unique_ptr<host::DriverHost> host_;
  std::shared_ptr<host::File> file_;
  CardAgent agent_;
};

}  // namespace zelta::test
