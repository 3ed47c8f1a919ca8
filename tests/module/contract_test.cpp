// The module against the framework's rules: each request completed once, every reference given
// back, nothing touched after completion, contexts cleaned.
#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "tests/module/recorded_module.h"

namespace zelta::test {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;

class ContractTest : public RecordedModuleTest {};

TEST_F(ContractTest, OneReaderInterfaceIsPublished) {
  const auto interfaces = framework_->interfaces();
  ASSERT_EQ(interfaces.size(), 1u);
  EXPECT_TRUE(interfaces[0].interfaceClass == kReaderInterfaceClass);
  EXPECT_EQ(interfaces[0].name, L"dev0");
}

TEST_F(ContractTest, CallbacksAreNotSerialised) {
  EXPECT_EQ(framework_->lockingConstraint(), framework::kCallbackConstraintNone);
}

TEST_F(ContractTest, QueueIsParallelAndTheDefault) {
  const QueueArguments arguments = framework_->queueArguments();
  EXPECT_NE(arguments.defaultQueue, 0);
  EXPECT_EQ(arguments.dispatchType, framework::kDispatchParallel);
  EXPECT_EQ(arguments.powerManaged, 0);
  EXPECT_NE(arguments.allowZeroLength, 0);
}

TEST_F(ContractTest, EveryControlKeepsTheRulesWithoutAnAgent) {
  for (const std::uint32_t code :
       {IOCTL_SMARTCARD_GET_ATTRIBUTE, IOCTL_SMARTCARD_GET_STATE, IOCTL_SMARTCARD_IS_ABSENT,
        IOCTL_SMARTCARD_POWER, IOCTL_SMARTCARD_SET_ATTRIBUTE, IOCTL_SMARTCARD_SET_PROTOCOL,
        IOCTL_SMARTCARD_TRANSMIT, IOCTL_SMARTCARD_GET_LAST_ERROR, IOCTL_SMARTCARD_EJECT}) {
    EXPECT_EQ(framework_->dispatch({code, Bytes(12), 64}).completions(), 1) << std::hex << code;
    EXPECT_EQ(framework_->dispatch({code, {}, {}}).completions(), 1) << std::hex << code;
    EXPECT_EQ(framework_->dispatch({code, Bytes(), 0}).completions(), 1) << std::hex << code;
  }
}

TEST_F(ContractTest, EveryControlKeepsTheRulesWithACard) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  const auto protocol = SCARD_PROTOCOL_T1;
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64}), answer::kSuccess);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_SET_PROTOCOL, number(protocol), 4}), answer::kSuccess);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(protocol, {1, 2, 3, 4}), 64}),
            answer::kSuccess);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_ATTRIBUTE, number(SCARD_ATTR_ATR_STRING), 64}),
            answer::kSuccess);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_ATTRIBUTE, number(PIPE_NAME), 128}), answer::kSuccess);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_STATE, {}, 4}), answer::kSuccess);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_POWER, number(SCARD_POWER_DOWN), 64}), answer::kSuccess);
}

TEST_F(ContractTest, AnswerIsInTheOutputAtCompletion) {
  RecordingRequest& request = framework_->dispatch({IOCTL_SMARTCARD_GET_STATE, {}, 4});
  EXPECT_EQ(request.information(), 4u);
  EXPECT_EQ(toNumber(request.output()), SCARD_ABSENT);
}

TEST_F(ContractTest, TooSmallOutputStaysUnwrittenAndSucceeds) {
  RecordingRequest& request = framework_->dispatch({IOCTL_SMARTCARD_GET_STATE, {}, 2});
  EXPECT_EQ(request.status(), answer::kSuccess);
  EXPECT_EQ(request.information(), 4u);
  EXPECT_EQ(request.output(), (Bytes{0, 0}));
}

TEST_F(ContractTest, RequestWithoutOutputMemoryFails) {
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_STATE, {}, {}}), answer::kGenFailure);
}

TEST_F(ContractTest, FileNameDecidesTheReader) {
  const auto statusFor = [this](std::optional<std::wstring> name) {
    return statusOf({IOCTL_SMARTCARD_GET_STATE, {}, 4, std::move(name)});
  };
  EXPECT_EQ(statusFor(L"\\DEV0"), answer::kSuccess);
  EXPECT_EQ(statusFor(L"\\dev0abc"), answer::kSuccess);
  for (const wchar_t* name : {L"\\dev1", L"\\dev-1", L"\\dev", L"\\devx", L"\\reader0",
                              L"\\devices\\dev0", L"\\dev99999999999", L""}) {
    EXPECT_EQ(statusFor(name), answer::kInvalidState);
  }
  EXPECT_EQ(statusFor(std::wstring(300, L'd')), answer::kInvalidState);
  EXPECT_EQ(statusFor(std::nullopt), answer::kInvalidState);
}

TEST_F(ContractTest, UnknownControlIsRefusedOnceTheReaderIsFound) {
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_LAST_ERROR, {}, 4}), answer::kNotSupported);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_LAST_ERROR, {}, 4, L"\\dev1"}), answer::kInvalidState);
}

TEST_F(ContractTest, WaitingRequestsAreCancelledByTheShutdown) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  RecordingRequest& removal = framework_->dispatch({IOCTL_SMARTCARD_IS_ABSENT, {}, {}});
  agent_.setCardOut();
  RecordingRequest& insertion = framework_->dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
  EXPECT_EQ(removal.completions() + insertion.completions(), 0);
  takeDown();
  EXPECT_EQ(removal.status(), answer::kCancelled);
  EXPECT_EQ(insertion.status(), answer::kCancelled);
}

TEST_F(ContractTest, CancelledRequestIsCompletedByTheCallback) {
  RecordingRequest& waiting = framework_->dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
  waiting.cancel();
  EXPECT_EQ(waiting.completions(), 1);
  EXPECT_EQ(waiting.status(), answer::kCancelled);
  EXPECT_EQ(waiting.cancelCallbacks(), 1);
}

TEST_F(ContractTest, RequestCancelledBeforeItWaitsIsCompletedByTheCallback) {
  RecordingRequest& request = framework_->makeRequest({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
  request.cancel();
  framework_->dispatch(request);
  EXPECT_EQ(request.status(), answer::kCancelled);
  EXPECT_EQ(request.cancelCallbacks(), 1);
}

TEST_F(ContractTest, StoppedDeviceHasNoReadersAnyMore) {
  RecordingRequest& waiting = framework_->dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
  EXPECT_EQ(framework_->pnp()->OnQueryStop(nullptr), framework::kOk);
  EXPECT_EQ(waiting.status(), answer::kCancelled);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_STATE, {}, 4}), answer::kInvalidState);
  EXPECT_EQ(framework_->exitD0(), framework::kOk);
  EXPECT_EQ(framework_->enterD0(), framework::kOk);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_STATE, {}, 4}), answer::kInvalidState);
}

TEST_F(ContractTest, SurpriseRemovalAndQueryRemoveTakeTheReadersDown) {
  framework_->pnp()->OnSurpriseRemoval(nullptr);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_STATE, {}, 4}), answer::kInvalidState);
  EXPECT_EQ(framework_->pnp()->OnQueryRemove(nullptr), framework::kOk);
}

TEST_F(ContractTest, MissingRequestIsOnlyLogged) {
  RecordingRequest& request = framework_->dispatch({IOCTL_SMARTCARD_GET_STATE, {}, 4});
  EXPECT_EQ(request.completions(), 1);
  framework::ComPtr<framework::IRequestCallbackCancel> cancel;
  ASSERT_EQ(
      framework_->pnp()->QueryInterface(framework::IRequestCallbackCancel::iid, cancel.putVoid()),
      framework::kOk);
  cancel->OnCancel(nullptr);
  cancel.reset();
  takeDown();
  EXPECT_EQ(exports_.canUnload(), framework::kOk);
  EXPECT_THAT(world_.logSummaries(), Contains("<ERROR> -500 [OnCancel]Invalid request"));
}

}  // namespace
}  // namespace zelta::test
