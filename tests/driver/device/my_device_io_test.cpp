// Dispatch, the reader's index and cancellation, as requests come from the framework.
#include <climits>
#include <future>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "tests/driver/device/device_fixture.h"

namespace zelta {
namespace {

using test::DeviceFixture;
using test::error;
using test::FakeWdfRequest;
using test::info;
using test::kNoCode;
using test::Outcome;
using test::RequestSetup;
using testing::ElementsAre;

constexpr std::uint32_t kInvalidState = 0x8007139F;
constexpr std::uint32_t kNotSupported = 0x80070032;
constexpr std::uint32_t kCancelled = 0x800704C7;

RequestSetup named(std::wstring name) {
  RequestSetup setup;
  setup.fileName = std::move(name);
  return setup;
}

class Dispatch : public DeviceFixture {
 protected:
  void SetUp() override { bringUp(); }

  void expectRefused(const Outcome& outcome, std::uint32_t status) {
    EXPECT_EQ(outcome.status(), status);
    EXPECT_EQ(outcome.information(), 0u);
  }
};

TEST_F(Dispatch, OfNoRequestIsLoggedOnly) {
  device_->ProcessIoControl(nullptr, nullptr, IOCTL_SMARTCARD_POWER, 4, 0);
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0], test::debug("Start section:CMyDevice::ProcessIoControl"));
  EXPECT_EQ(records[1], error(87, "[IOCT]Invalid request: ERROR_INVALID_PARAMETER:00310004"));
  EXPECT_THAT(records[2].text,
              testing::StartsWith("End section:CMyDevice::ProcessIoControl elapsed:"));
}

TEST_F(Dispatch, LogsCodeAndLengths) {
  RequestSetup setup;
  setup.outputCapacity = 4;
  const auto outcome = send(IOCTL_SMARTCARD_GET_STATE, setup);
  EXPECT_EQ(outcome->status(), 0u);
  EXPECT_EQ(outcome->information(), 4u);
  EXPECT_EQ(outcome->output(), (Bytes{1, 0, 0, 0}));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("[IOCT]IOCTL 00310038 - In 0 Out 4"),
                          info("[GSTA]IOCTL_SMARTCARD_GET_STATE"), info("STATE:00000001")));
}

TEST_F(Dispatch, PrintsLengthsAsSignedNumbers) {
  auto* request = new FakeWdfRequest(RequestSetup{});
  const auto outcome = request->outcome();
  device_->ProcessIoControl(nullptr, request, 0, 0xFFFFFFFF, std::size_t{INT_MAX} + 1);
  EXPECT_EQ(log_.recordsAboveDebug()[0], info("[IOCT]IOCTL 00000000 - In -1 Out -2147483648"));
  EXPECT_EQ(outcome->status(), kNotSupported);
}

struct CodeRow {
  std::uint32_t code;
  const char* firstRecord;  // of the handler
};

class Codes : public Dispatch, public testing::WithParamInterface<CodeRow> {};

TEST_P(Codes, ReachTheirHandler) {
  RequestSetup setup;
  setup.input = Bytes{0x02, 0x00, 0xFF, 0x7F};
  setup.outputCapacity = 64;
  story_.checkResult =
      GetParam().code == IOCTL_SMARTCARD_IS_PRESENT ? QueryResult::kSuccess : QueryResult::kFailure;
  const auto outcome = send(GetParam().code, setup);
  EXPECT_TRUE(outcome->completed());
  const auto records = log_.recordsAboveDebug();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records[1], info(GetParam().firstRecord));
}

INSTANTIATE_TEST_SUITE_P(Table, Codes,
                         testing::Values(CodeRow{0x00310008, "[GATT] - code 7FFF0002"},
                                         CodeRow{0x00310028, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT"},
                                         CodeRow{0x00310038, "[GSTA]IOCTL_SMARTCARD_GET_STATE"},
                                         CodeRow{0x0031002C, "[IABS]IOCTL_SMARTCARD_IS_ABSENT"},
                                         CodeRow{0x00310004, "[POWR]IOCTL_SMARTCARD_POWER"},
                                         CodeRow{0x0031000C, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"},
                                         CodeRow{0x00310030,
                                                 "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:7FFF0002"},
                                         CodeRow{0x00310014, "[TRSM]IOCTL_SMARTCARD_TRANSMIT"}));

TEST_F(Dispatch, OfOtherCodesIsNotSupported) {
  for (const std::uint32_t code :
       {IOCTL_SMARTCARD_GET_LAST_ERROR, IOCTL_SMARTCARD_EJECT, IOCTL_SMARTCARD_SWALLOW,
        IOCTL_SMARTCARD_CONFISCATE, IOCTL_SMARTCARD_GET_PERF_CNTR, 0u, 0xFFFFFFFFu}) {
    log_.clear();
    expectRefused(*send(code), kNotSupported);
    char text[64];
    std::snprintf(text, sizeof text, "[IOCT]ERROR_NOT_SUPPORTED:%08X", code);
    EXPECT_THAT(log_.errors(), ElementsAre(error(50, text)));
  }
}

TEST_F(Dispatch, WithoutReadersIsAnInvalidState) {
  ASSERT_EQ(device_->OnQueryStop(wdfDevice()), 0);
  log_.clear();
  expectRefused(*send(IOCTL_SMARTCARD_GET_LAST_ERROR, named(L"nothing")), kInvalidState);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(5023, "[IOCT]No reader available: ERROR_INVALID_STATE:0031003C")));
}

TEST_F(Dispatch, BeforeTheWorkingStateIsAnInvalidState) {
  takeDown();
  ASSERT_EQ(create(), 0);
  ASSERT_EQ(device_->OnPrepareHardware(wdfDevice()), 0);
  log_.clear();
  expectRefused(*send(IOCTL_SMARTCARD_GET_STATE), kInvalidState);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(5023, "[IOCT]No reader available: ERROR_INVALID_STATE:00310038")));
}

TEST_F(Dispatch, ToANullReaderIsAnInvalidState) {
  takeDown();
  factory_ = [](std::uint32_t, ReaderDevice*) { return std::unique_ptr<Reader>(); };
  bringUp();
  expectRefused(*send(IOCTL_SMARTCARD_GET_STATE), kInvalidState);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(5023, "[IOCT]Reader is null: ERROR_INVALID_STATE:00310038")));
}

TEST_F(Dispatch, OutOfTheReadersRangeIsAnInvalidState) {
  for (const wchar_t* name : {L"\\dev1", L"\\dev-1", L"\\dev7abc", L"\\dev2147483647"}) {
    log_.clear();
    expectRefused(*send(IOCTL_SMARTCARD_GET_STATE, named(name)), kInvalidState);
    EXPECT_THAT(log_.errors(), ElementsAre(error(5023,
                                                 "[IOCT]Out of range reader: "
                                                 "ERROR_INVALID_STATE:00310038")));
  }
}

TEST_F(Dispatch, FindsTheReaderWhateverTheCaseOfTheName) {
  for (const wchar_t* name : {L"\\DEV0", L"\\dEv0", L"dev0", L"\\dev +0", L"\\dev0\\more"}) {
    EXPECT_EQ(send(IOCTL_SMARTCARD_GET_STATE, named(name))->status(), 0x8007001Fu);  // no output
  }
}

struct NameRow {
  const wchar_t* name;
  const char* narrowName;
  const char* reason;
};

class UnusableNames : public Dispatch, public testing::WithParamInterface<NameRow> {};

TEST_P(UnusableNames, AreLoggedAndRefused) {
  const NameRow& row = GetParam();
  expectRefused(*send(IOCTL_SMARTCARD_GET_STATE, named(row.name)), kInvalidState);
  const std::string text = std::string("Instance ID cannot be retrieved from request [filename:") +
                           row.narrowName + "]: " + row.reason;
  EXPECT_THAT(log_.errors(), ElementsAre(error(kNoCode, text),
                                         error(5023, "[IOCT]Instance ID cannot be retrieved")));
}

INSTANTIATE_TEST_SUITE_P(
    Names, UnusableNames,
    testing::Values(NameRow{L"\\dev", "\\dev", "invalid stoi argument"},
                    NameRow{L"\\DevX", "\\DevX", "invalid stoi argument"},
                    NameRow{L"\\devices\\dev3", "\\devices\\dev3", "invalid stoi argument"},
                    NameRow{L"\\dev99999999999", "\\dev99999999999", "stoi argument out of range"},
                    NameRow{L"\\dev2147483648", "\\dev2147483648", "stoi argument out of range"},
                    NameRow{L"\\reader0", "\\reader0", "Device name prefix not found"},
                    NameRow{L"", "", "Device name prefix not found"},
                    NameRow{L"\\\x4E2D", "\\\xE4\xB8\xAD", "Device name prefix not found"}));

TEST_F(Dispatch, WithoutAFileIsAnInvalidState) {
  RequestSetup setup;
  setup.fileName.reset();
  expectRefused(*send(IOCTL_SMARTCARD_GET_STATE, setup), kInvalidState);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(kNoCode, "Instance ID cannot be retrieved: file object is null"),
                          error(5023, "[IOCT]Instance ID cannot be retrieved")));
}

TEST_F(Dispatch, OfAFileWhoseNameCannotBeReadIsAnInvalidState) {
  RequestSetup setup;
  setup.fileNameResult = framework::hresult(0x80070005);
  expectRefused(*send(IOCTL_SMARTCARD_GET_STATE, setup), kInvalidState);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x80070005, "Instance ID cannot be retrieved from request"),
                          error(5023, "[IOCT]Instance ID cannot be retrieved")));
}

TEST_F(Dispatch, NameOf299CharactersFitsAndOneMoreDoesNot) {
  EXPECT_EQ(send(IOCTL_SMARTCARD_GET_STATE, named(std::wstring(295, L'x') + L"dev0"))->status(),
            0x8007001Fu);  // reached the reader; no output
  expectRefused(*send(IOCTL_SMARTCARD_GET_STATE, named(std::wstring(296, L'x') + L"dev0")),
                kInvalidState);
}

TEST_F(Dispatch, RequestThatCannotBeAttachedIsCompletedWithThatFailure) {
  RequestSetup setup;
  setup.assignResult = framework::hresult(0x8007000E);
  expectRefused(*send(IOCTL_SMARTCARD_IS_PRESENT, setup), 0x8007000E);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x8007000E, "[IOCT]Request cannot be attached:00310028")));
}

TEST_F(Dispatch, HandlerWithoutMemoryCompletesTheRequestAsOutOfMemory) {
  story_.onCheck = [] { throw std::bad_alloc(); };
  expectRefused(*send(IOCTL_SMARTCARD_IS_PRESENT), 0x8007000E);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x8007000E, "CMyDevice::ProcessIoControl: out of memory")));
}

TEST_F(Dispatch, HandlerThatThrowsCompletesTheRequestAsAGeneralFailure) {
  story_.onCheck = [] { throw std::runtime_error("no thread"); };
  expectRefused(*send(IOCTL_SMARTCARD_IS_ABSENT), 0x8007001F);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x8007001F, "CMyDevice::ProcessIoControl: no thread")));
}

TEST_F(Dispatch, ZeroLengthControlReachesTheDeviceWithZeroLengths) {
  send(IOCTL_SMARTCARD_POWER);
  EXPECT_EQ(log_.recordsAboveDebug()[0], info("[IOCT]IOCTL 00310004 - In 0 Out 0"));
}

TEST_F(Dispatch, DeviceLockIsNotHeldAroundTheHandler) {
  bool held = true;
  story_.onCheck = [&] { held = lockIsHeld(); };
  send(IOCTL_SMARTCARD_IS_ABSENT);
  EXPECT_FALSE(held);
}

// What takes readers away waits for those inside.
class GateKeeping : public Dispatch {
 protected:
  // Runs `operation` while a control is inside; gives the readers' story up to that control's end.
  template <typename Operation>
  std::vector<std::string> runWhileInside(Operation operation) {
    std::promise<void> inside;
    std::promise<void> ended;
    std::promise<void> leave;
    story_.onCheck = [&] {
      inside.set_value();
      leave.get_future().wait();
    };
    story_.onEndExchanges = [&] { ended.set_value(); };
    std::thread sender([&] { EXPECT_EQ(send(IOCTL_SMARTCARD_IS_ABSENT)->status(), 0u); });
    inside.get_future().wait();
    std::thread operating(operation);
    ended.get_future().wait();
    // The gate was closed before: nobody gets in to begin an exchange that is not ended.
    EXPECT_EQ(send(IOCTL_SMARTCARD_GET_LAST_ERROR)->status(), kInvalidState);
    const auto before = story_.taken();
    leave.set_value();
    sender.join();
    operating.join();
    story_.onCheck = nullptr;
    story_.onEndExchanges = nullptr;
    return before;
  }
};

TEST_F(GateKeeping, ShutDownEndsExchangesWaitsForAControlInsideAndRefusesLaterOnes) {
  const auto before = runWhileInside([&] { device_->OnQueryStop(wdfDevice()); });
  EXPECT_THAT(before, ElementsAre("exchanges ended 0"));
  EXPECT_THAT(story_.taken(), ElementsAre("shut down 0", "destroyed 0"));
}

TEST_F(GateKeeping, EnteringTheWorkingStateAgainWaitsForAControlInside) {
  const auto before = runWhileInside(
      [&] { EXPECT_EQ(device_->OnD0Entry(wdfDevice(), framework::kPowerDeviceD3Final), 0); });
  EXPECT_THAT(before, ElementsAre("exchanges ended 0"));
  EXPECT_THAT(story_.taken(), ElementsAre("destroyed 0", "made 0"));
  EXPECT_EQ(send(IOCTL_SMARTCARD_IS_ABSENT)->status(), 0u);  // open again
}

class Cancel : public Dispatch {
 protected:
  // A request that waits for a card; the test's own reference beside the framework's.
  framework::ComPtr<FakeWdfRequest> wait(const RequestSetup& setup = {},
                                         std::uint32_t code = IOCTL_SMARTCARD_IS_PRESENT) {
    story_.checkResult =
        code == IOCTL_SMARTCARD_IS_ABSENT ? QueryResult::kSuccess : QueryResult::kFailure;
    auto request = framework::ComPtr<FakeWdfRequest>(new FakeWdfRequest(setup));
    dispatch(request.get(), code, setup);
    EXPECT_TRUE(request->markedCancelable());
    log_.clear();
    return request;
  }
};

TEST_F(Cancel, OfNoRequestIsLoggedOnly) {
  device_->OnCancel(nullptr);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoCode, "[OnCancel]Invalid request")));
}

TEST_F(Cancel, OfAWaitingRequestTakesItOutOfItsListAndCompletesIt) {
  const auto request = wait();
  request->cancel();
  EXPECT_EQ(request->outcome()->status(), kCancelled);
  EXPECT_EQ(request->outcome()->information(), 0u);
  EXPECT_FALSE(reader_->waiting().any(CardEvent::kInserted));
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("[CREQ]Cancel Insert")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnCancel");
}

TEST_F(Cancel, IsMadeUnderTheDeviceLock) {
  RequestSetup setup;
  bool held = false;
  setup.onComplete = [&] { held = lockIsHeld(); };
  wait(setup)->cancel();
  EXPECT_TRUE(held);
}

TEST_F(Cancel, OfARequestWithoutAnIndexCompletesItAsCancelled) {
  bool held = false;
  RequestSetup setup = named(L"\\none");
  setup.onComplete = [&] { held = lockIsHeld(); };
  auto* request = new FakeWdfRequest(setup);  // never dispatched, so never attached
  const auto outcome = request->outcome();
  device_->OnCancel(request);
  expectRefused(*outcome, kCancelled);
  EXPECT_TRUE(held);
  EXPECT_THAT(log_.errors(), ElementsAre(error(kNoCode,
                                               "Instance ID cannot be retrieved from request "
                                               "[filename:\\none]: Device name prefix not found"),
                                         error(1223, "[OnCancel]Instance ID cannot be retrieved")));
}

TEST_F(Cancel, OfAWaitingRequestWithoutAnIndexTakesItOutOfItsList) {
  for (const std::uint32_t code : {IOCTL_SMARTCARD_IS_PRESENT, IOCTL_SMARTCARD_IS_ABSENT}) {
    const auto request = wait({}, code);
    request->rename(L"", framework::hresult(0x80070005));
    request->cancel();
    expectRefused(*request->outcome(), kCancelled);
    EXPECT_FALSE(reader_->waiting().any(CardEvent::kInserted));
    EXPECT_FALSE(reader_->waiting().any(CardEvent::kRemoved));
    EXPECT_THAT(log_.recordsAboveDebug(),
                ElementsAre(error(0x80070005, "Instance ID cannot be retrieved from request"),
                            error(1223, "[OnCancel]Instance ID cannot be retrieved")));
  }
}

TEST_F(Cancel, OfAWaitingRequestWithTheIndexOfNoReaderTakesItOutOfItsList) {
  const auto request = wait();
  request->rename(L"\\dev7");
  request->cancel();
  expectRefused(*request->outcome(), kCancelled);
  EXPECT_FALSE(reader_->waiting().any(CardEvent::kInserted));
  EXPECT_THAT(log_.errors(), ElementsAre(error(1223, "[OnCancel]The reader is gone")));
}

TEST_F(Cancel, OfARequestWhoseReaderIsGoneCompletesItAsCancelled) {
  ASSERT_EQ(device_->OnQueryStop(wdfDevice()), 0);
  log_.clear();
  auto* request = new FakeWdfRequest(RequestSetup{});
  const auto outcome = request->outcome();
  device_->OnCancel(request);
  expectRefused(*outcome, kCancelled);
  EXPECT_THAT(log_.errors(), ElementsAre(error(1223, "[OnCancel]The reader is gone")));
}

TEST_F(Cancel, BeforeTheRequestIsMarkedCompletesItWhileItIsMarked) {
  auto request = framework::ComPtr<FakeWdfRequest>(new FakeWdfRequest(RequestSetup{}));
  request->cancel();
  dispatch(request.get(), IOCTL_SMARTCARD_IS_PRESENT, {});
  EXPECT_EQ(request->outcome()->status(), kCancelled);
  EXPECT_FALSE(reader_->waiting().any(CardEvent::kInserted));
}

}  // namespace
}  // namespace zelta
