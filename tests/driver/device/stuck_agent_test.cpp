// The device is taken down although its agent has stopped reading and answering: the framework's
// call returns, and every request has been completed once. The pipes serialise their operations
// like Windows' handles, and do not buffer.
#include <future>

#include "agent_link/pipe_reader.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/doubles/pipes/forwarding_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/driver/device/device_fixture.h"
#include "tests/support/numbers.h"

namespace zelta {
namespace {

using namespace std::chrono_literals;
using test::error;
using test::FakeWdfRequest;
using test::number;
using test::SerialisingPipes;

const Bytes kTransmit = number(0, number(8, {0, 0xA4, 4, 0}));

class StuckAgent : public test::DeviceFixture {
 protected:
  // No query runs out of time.
  StuckAgent() {
    factory_ = [](std::uint32_t index, ReaderDevice* device) -> std::unique_ptr<Reader> {
      AgentLinkTimes times;
      times.query = 10min;
      return std::make_unique<PipeReader>(index, device, times);
    };
  }
  ~StuckAgent() override {
    takeDown();
    log_.setHook(nullptr);
  }

  // Brings the device up with a connected agent and a powered card.
  void SetUp() override {
    bringUp();
    FakeWdfRequest& insertion = send(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(waitUntilStuck()) << "the driver awaits no agent";
    ASSERT_NE(event_ = pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
    ASSERT_NE(command_ = pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
    answerAtrQuery();
    ASSERT_TRUE(insertion.waitCompleted());
    log_.clear();
  }

  void answerAtrQuery() {
    EXPECT_EQ(pipes_.clientRead(command_, 4), number(0));
    EXPECT_TRUE(pipes_.clientWrite(command_, number(2, {0x3B, 0x00})));
  }

  // Sends a request on a separate thread, like the framework.
  std::future<FakeWdfRequest*> begin(std::uint32_t code, const Bytes& input = {}) {
    return std::async(std::launch::async, [this, code, input] {
      return &send(code, {0, input, 64});
    });
  }

  // The system ends a driver whose callback takes longer than 60 seconds, together with its host.
  template <typename WayOut>
  static void expectEndsInTime(WayOut wayOut) {
    const auto start = std::chrono::steady_clock::now();
    wayOut();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
  }

  // The card is gone when the transmit fails.
  static void expectNotAccepted(const FakeWdfRequest& transmit) {
    EXPECT_EQ(transmit.status(), status::kSuccess);
    Bytes output = transmit.output();
    output.resize(transmit.information().value_or(0));
    EXPECT_EQ(output, number(0, number(8, {0x69, 0x01})));
  }

  bool waitUntilStuck() { return pipes_.waitUntilQueued(commandPipeName(0)); }

  SerialisingPipes pipes_;
  const test::ScopedPipes inPlace_{pipes_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

// A card ready notification follows the request's completion and has no time limit.
TEST_F(StuckAgent, DuringACardReadyNotification_DeviceIsTakenDownInTime) {
  auto select = begin(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T0));
  answerAtrQuery();
  ASSERT_TRUE(log_.waitFor("PROTOCOL SET: T0"));
  ASSERT_TRUE(waitUntilStuck());
  expectEndsInTime([this] { EXPECT_EQ(device_->OnQueryStop(wdfDevice()), status::kSuccess); });
  EXPECT_EQ(select.get()->status(), status::kSuccess);
  EXPECT_TRUE(log_.contains(
      error(platform::error::kOperationAborted, "Failed to send ready notification")));
}

TEST_F(StuckAgent, DuringATransmitWithOthersWaitingForTheirTurn_DeviceIsTakenDownInTime) {
  auto transmit = begin(IOCTL_SMARTCARD_TRANSMIT, kTransmit);
  ASSERT_TRUE(waitUntilStuck());
  auto present = begin(IOCTL_SMARTCARD_IS_PRESENT);
  auto absent = begin(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(log_.waitFor("[IPRE]IOCTL_SMARTCARD_IS_PRESENT"));
  ASSERT_TRUE(log_.waitFor("[IABS]IOCTL_SMARTCARD_IS_ABSENT"));
  expectEndsInTime([this] { device_->OnSurpriseRemoval(wdfDevice()); });
  expectNotAccepted(*transmit.get());
  EXPECT_EQ(present.get()->status(), status::kCancelled) << "queued, and completed by the shutdown";
  EXPECT_EQ(absent.get()->status(), status::kSuccess) << "no card answers";
}

// An insertion asks for the ATR with the device lock held, which the transmit needs for its
// completion.
TEST_F(StuckAgent, RequestWhoseAnswerIsThere_IsCompletedBeforeAnInsertionAsks) {
  test::RequestSetup setup{0, kTransmit, 64};
  setup.onOutput = [this] {
    std::this_thread::sleep_for(50ms);  // gives the insertion time to query the agent
    EXPECT_EQ(pipes_.unread(command_), 0u);
  };
  auto transmit =
      std::async(std::launch::async, [&] { return &send(IOCTL_SMARTCARD_TRANSMIT, setup); });
  ASSERT_EQ(pipes_.clientRead(command_, 12), number(2, number(4, {0, 0xA4, 4, 0})));
  ASSERT_TRUE(pipes_.clientWrite(event_, number(1)));
  ASSERT_TRUE(log_.waitFor("Card inserted"));
  ASSERT_TRUE(pipes_.clientWrite(command_, number(2, {0x90, 0x00})));
  EXPECT_EQ(transmit.get()->status(), status::kSuccess);
  answerAtrQuery();
}

// The server thread asks for the ATR with the device lock held, which every control needs.
TEST_F(StuckAgent, DuringTheQueryForAnInsertedCard_DeviceIsTakenDownInTime) {
  std::promise<void> locking;
  std::atomic<bool> told{false};
  log_.setHook([&](const test::LogRecord& record) {
    const bool waits =
        record.text.rfind("Locking: Function:CMyDevice::getReaderInstanceId", 0) == 0;
    if (waits && !told.exchange(true)) locking.set_value();
  });
  ASSERT_TRUE(pipes_.clientWrite(event_, number(1)));
  ASSERT_TRUE(waitUntilStuck());
  auto state = begin(IOCTL_SMARTCARD_GET_STATE);
  ASSERT_EQ(locking.get_future().wait_for(30s), std::future_status::ready);
  expectEndsInTime([this] { EXPECT_EQ(framework_.exitD0(), status::kSuccess); });
  EXPECT_EQ(state.get()->status(), status::kSuccess) << "it was inside before the gate was closed";
  log_.setHook(nullptr);
}

}  // namespace
}  // namespace zelta
