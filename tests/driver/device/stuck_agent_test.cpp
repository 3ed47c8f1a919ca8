// The device is taken down although its agent has stopped reading and answering: the framework's
// call returns, and every request has been completed once. The pipes serialise their operations as
// Windows' handles do, and have no room for what is not read.
#include <future>

#include "agent_link/pipe_reader.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/driver/device/device_fixture.h"

namespace zelta {
namespace {

using namespace std::chrono_literals;
using test::error;
using test::number;
using test::RequestSetup;
using test::ScopedPipes;
using test::SerialisingPipes;

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;

// A driver whose callback takes longer is ended by the system, together with its host.
constexpr std::chrono::seconds kHostLimit{60};

class StuckAgent : public test::DeviceFixture {
 protected:
  // No query is ended by its own time.
  StuckAgent() {
    factory_ = [](std::uint32_t index, ReaderDevice* device) -> std::unique_ptr<Reader> {
      AgentLinkTimes times;
      times.query = 10min;
      return std::make_unique<PipeReader>(index, device, times);
    };
  }
  ~StuckAgent() override { takeDown(); }

  // Up, with an agent connected whose card was powered.
  void SetUp() override {
    bringUp();
    const auto insertion = send(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(pipes_.waitUntilQueued(commandPipeName(0))) << "the driver awaits no agent";
    ASSERT_NE(event_ = pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
    ASSERT_NE(command_ = pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
    answerAtrQuery(0);
    ASSERT_TRUE(insertion->wait());
    log_.clear();
  }

  void answerAtrQuery(std::uint32_t command) {
    EXPECT_EQ(pipes_.clientRead(command_, 4), number(command));
    EXPECT_TRUE(pipes_.clientWrite(command_, number(2, {0x3B, 0x00})));
  }

  // What the framework would run on a thread of its own.
  std::future<std::shared_ptr<test::Outcome>> begin(std::uint32_t code, const Bytes& input) {
    return std::async(std::launch::async, [this, code, input] {
      RequestSetup setup;
      setup.input = input;
      setup.outputCapacity = 64;
      return send(code, setup);
    });
  }

  // A way out of the working state, which is to end in time.
  template <typename WayOut>
  static void expectEndsInTime(WayOut wayOut) {
    const auto start = std::chrono::steady_clock::now();
    wayOut();
    EXPECT_LT(std::chrono::steady_clock::now() - start, kHostLimit);
  }

  // The card is gone when the transmit fails.
  static void expectNotAccepted(const test::Outcome& transmit) {
    EXPECT_EQ(transmit.status(), 0u);
    std::vector<std::uint8_t> output = transmit.output();
    output.resize(transmit.information().value_or(0));
    EXPECT_EQ(output, number(0, number(8, {0x69, 0x01})));
  }

  bool waitUntilStuck() { return pipes_.waitUntilQueued(commandPipeName(0)); }

  test::LogWaiter waiter_{log_};
  SerialisingPipes pipes_;
  ScopedPipes scoped_{pipes_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

TEST_F(StuckAgent, InATransmit) {
  auto transmit = begin(IOCTL_SMARTCARD_TRANSMIT, number(0, number(8, {0, 0xA4, 4, 0})));
  ASSERT_TRUE(waitUntilStuck());
  expectEndsInTime([this] { EXPECT_EQ(device_->OnQueryRemove(wdfDevice()), 0); });
  expectNotAccepted(*transmit.get());
}

// It follows the request's completion and has no time limit.
TEST_F(StuckAgent, InACardReadyNotification) {
  auto select = begin(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T0));
  answerAtrQuery(0);
  ASSERT_TRUE(log_.waitFor("PROTOCOL SET: T0"));
  ASSERT_TRUE(waitUntilStuck());
  expectEndsInTime([this] { EXPECT_EQ(device_->OnQueryStop(wdfDevice()), 0); });
  EXPECT_EQ(select.get()->status(), 0u);
  EXPECT_TRUE(log_.contains(error(kAborted, "Failed to send ready notification")));
}

// One is in the exchange, and two wait for their turn.
TEST_F(StuckAgent, WithOthersWaitingBehindTheExchange) {
  auto transmit = begin(IOCTL_SMARTCARD_TRANSMIT, number(0, number(8, {0, 0xA4, 4, 0})));
  ASSERT_TRUE(waitUntilStuck());
  auto present = begin(IOCTL_SMARTCARD_IS_PRESENT, {});
  auto absent = begin(IOCTL_SMARTCARD_IS_ABSENT, {});
  ASSERT_TRUE(log_.waitFor("[IPRE]IOCTL_SMARTCARD_IS_PRESENT"));
  ASSERT_TRUE(log_.waitFor("[IABS]IOCTL_SMARTCARD_IS_ABSENT"));
  expectEndsInTime([this] { device_->OnSurpriseRemoval(wdfDevice()); });
  expectNotAccepted(*transmit.get());
  EXPECT_EQ(present.get()->status(), 0x800704C7u) << "queued, and completed by the shutdown";
  EXPECT_EQ(absent.get()->status(), 0u) << "no card answers";
}

// The server thread asks for the ATR with the device lock held, which every control needs.
TEST_F(StuckAgent, InTheQueryForAnInsertedCard) {
  ASSERT_TRUE(pipes_.clientWrite(event_, number(1)));
  ASSERT_TRUE(waitUntilStuck());
  auto state = begin(IOCTL_SMARTCARD_GET_STATE, {});
  ASSERT_TRUE(waiter_.waitForBeginning("Locking: Function:CMyDevice::getReaderInstanceId"));
  expectEndsInTime(
      [this] { EXPECT_EQ(device_->OnD0Exit(wdfDevice(), framework::kPowerDeviceD3Final), 0); });
  EXPECT_EQ(state.get()->status(), 0u) << "it was inside before the gate was closed";
}

}  // namespace
}  // namespace zelta
