// Dispatch, the reader's index and cancellation, as requests come from the framework.
#include <climits>
#include <future>

#include "contract/io_controls.h"
#include "tests/driver/device/device_fixture.h"
#include "tests/support/case_names.h"

namespace zelta {
namespace {

using test::DeviceFixture;
using test::error;
using test::FakeWdfRequest;
using test::info;
using test::kNoCode;
using test::RequestSetup;
using testing::ElementsAre;

RequestSetup named(std::wstring name) {
  RequestSetup setup;
  setup.fileName = std::move(name);
  return setup;
}

class Dispatch : public DeviceFixture {
 protected:
  void SetUp() override { bringUp(); }

  static void expectRefused(const FakeWdfRequest& request, Status status) {
    EXPECT_EQ(request.status(), status);
    EXPECT_EQ(request.information(), 0u);
  }
};

TEST_F(Dispatch, NoRequest_IsLoggedOnly) {
  device_->ProcessIoControl(nullptr, nullptr, IOCTL_SMARTCARD_POWER, 4, 0);
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0], test::debug("Start section:CMyDevice::ProcessIoControl"));
  EXPECT_EQ(records[1], error(87, "[IOCT]Invalid request: ERROR_INVALID_PARAMETER:00310004"));
  EXPECT_THAT(records[2].text,
              testing::StartsWith("End section:CMyDevice::ProcessIoControl elapsed:"));
}

TEST_F(Dispatch, Control_IsLoggedWithItsLengthsAsSignedNumbers) {
  device_->ProcessIoControl(nullptr, &framework_.makeRequest(), 0, 0xFFFFFFFF,
                            std::size_t{INT_MAX} + 1);
  EXPECT_EQ(log_.recordsAboveDebug()[0], info("[IOCT]IOCTL 00000000 - In -1 Out -2147483648"));
}

TEST_F(Dispatch, ZeroLengthControl_ReachesTheDeviceWithZeroLengths) {
  send(IOCTL_SMARTCARD_POWER);
  EXPECT_EQ(log_.recordsAboveDebug()[0], info("[IOCT]IOCTL 00310004 - In 0 Out 0"));
}

struct CodeRow {
  std::uint32_t code;
  const char* firstRecord;  // of the handler
};

class Codes : public Dispatch, public testing::WithParamInterface<CodeRow> {};

TEST_P(Codes, SupportedControl_ReachesItsHandlerWithTheDeviceLockFree) {
  RequestSetup setup;
  setup.input = Bytes{0x02, 0x00, 0xFF, 0x7F};
  setup.outputCapacity = 64;
  story_.checkResult =
      GetParam().code == IOCTL_SMARTCARD_IS_PRESENT ? QueryResult::kSuccess : QueryResult::kFailure;
  story_.onCheck = [&] { EXPECT_FALSE(lockIsHeld()); };
  EXPECT_TRUE(send(GetParam().code, setup).completed());
  const auto records = log_.recordsAboveDebug();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records[1], info(GetParam().firstRecord));
}

INSTANTIATE_TEST_SUITE_P(
    Table, Codes,
    testing::Values(CodeRow{IOCTL_SMARTCARD_GET_ATTRIBUTE, "[GATT] - code 7FFF0002"},
                    CodeRow{IOCTL_SMARTCARD_IS_PRESENT, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT"},
                    CodeRow{IOCTL_SMARTCARD_GET_STATE, "[GSTA]IOCTL_SMARTCARD_GET_STATE"},
                    CodeRow{IOCTL_SMARTCARD_IS_ABSENT, "[IABS]IOCTL_SMARTCARD_IS_ABSENT"},
                    CodeRow{IOCTL_SMARTCARD_POWER, "[POWR]IOCTL_SMARTCARD_POWER"},
                    CodeRow{IOCTL_SMARTCARD_SET_ATTRIBUTE, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE"},
                    CodeRow{IOCTL_SMARTCARD_SET_PROTOCOL,
                            "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:7FFF0002"},
                    CodeRow{IOCTL_SMARTCARD_TRANSMIT, "[TRSM]IOCTL_SMARTCARD_TRANSMIT"}),
    [](const auto& each) { return test::caseName(each.param.firstRecord); });

TEST_F(Dispatch, OtherControls_AreNotSupported) {
  for (const std::uint32_t code :
       {IOCTL_SMARTCARD_GET_LAST_ERROR, IOCTL_SMARTCARD_EJECT, IOCTL_SMARTCARD_SWALLOW,
        IOCTL_SMARTCARD_CONFISCATE, IOCTL_SMARTCARD_GET_PERF_CNTR, 0u, 0xFFFFFFFFu}) {
    log_.clear();
    expectRefused(send(code), status::kNotSupported);
    char text[64];
    (void)std::snprintf(text, sizeof text, "[IOCT]ERROR_NOT_SUPPORTED:%08X", code);
    EXPECT_THAT(log_.errors(), ElementsAre(error(50, text)));
  }
}

TEST_F(Dispatch, BeforeAndAfterTheWorkingState_IsAnInvalidStateWhateverTheCodeAndName) {
  const auto noReader = error(5023, "[IOCT]No reader available: ERROR_INVALID_STATE:0031003C");
  ASSERT_EQ(device_->OnQueryStop(wdfDevice()), status::kSuccess);
  log_.clear();
  expectRefused(send(IOCTL_SMARTCARD_GET_LAST_ERROR, named(L"nothing")), status::kInvalidState);
  EXPECT_THAT(log_.errors(), ElementsAre(noReader));
  takeDown();
  ASSERT_EQ(create(), status::kSuccess);
  ASSERT_EQ(framework_.prepareHardware(), status::kSuccess);
  log_.clear();
  expectRefused(send(IOCTL_SMARTCARD_GET_LAST_ERROR, named(L"nothing")), status::kInvalidState);
  EXPECT_THAT(log_.errors(), ElementsAre(noReader));
}

TEST_F(Dispatch, NullReader_IsAnInvalidState) {
  takeDown();
  factory_ = [](std::uint32_t, ReaderDevice*) { return std::unique_ptr<Reader>(); };
  bringUp();
  expectRefused(send(IOCTL_SMARTCARD_GET_STATE), status::kInvalidState);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(5023, "[IOCT]Reader is null: ERROR_INVALID_STATE:00310038")));
}

TEST_F(Dispatch, IndexOutOfTheReadersRange_IsAnInvalidState) {
  for (const wchar_t* name : {L"\\dev1", L"\\dev-1", L"\\dev7abc", L"\\dev2147483647"}) {
    log_.clear();
    expectRefused(send(IOCTL_SMARTCARD_GET_STATE, named(name)), status::kInvalidState);
    EXPECT_THAT(log_.errors(), ElementsAre(error(5023,
                                                 "[IOCT]Out of range reader: "
                                                 "ERROR_INVALID_STATE:00310038")));
  }
}

TEST_F(Dispatch, NameOf299Characters_FitsAndOneMoreDoesNot) {
  const std::wstring name = std::wstring(295, L'x') + L"dev0";
  EXPECT_EQ(send(IOCTL_SMARTCARD_GET_STATE, named(name)).status(), status::kGenFailure);
  expectRefused(send(IOCTL_SMARTCARD_GET_STATE, named(L"x" + name)), status::kInvalidState);
}

struct NameRow {
  const wchar_t* name;
  const char* narrowName;
  const char* reason;
};

class UnusableNames : public Dispatch, public testing::WithParamInterface<NameRow> {};

TEST_P(UnusableNames, FileNameWithoutAnIndex_IsLoggedAndRefused) {
  const NameRow& row = GetParam();
  expectRefused(send(IOCTL_SMARTCARD_GET_STATE, named(row.name)), status::kInvalidState);
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
                    NameRow{L"\\reader0", "\\reader0", "Device name prefix not found"},
                    NameRow{L"", "", "Device name prefix not found"},
                    NameRow{L"\\\x4E2D", "\\\xE4\xB8\xAD", "Device name prefix not found"}),
    [](const auto& each) { return test::caseName(each.param.narrowName); });

struct Unroutable {
  const char* name;
  RequestSetup setup;
  Status status;
  std::vector<test::LogRecord> errors;
};

class UnroutableRequests : public Dispatch, public testing::WithParamInterface<Unroutable> {};

TEST_P(UnroutableRequests, Dispatched_AreRefusedAndLogged) {
  expectRefused(send(IOCTL_SMARTCARD_IS_PRESENT, GetParam().setup), GetParam().status);
  EXPECT_EQ(log_.errors(), GetParam().errors);
}

RequestSetup without(void (*part)(RequestSetup&)) {
  RequestSetup setup;
  part(setup);
  return setup;
}

const auto kNoInstance = error(5023, "[IOCT]Instance ID cannot be retrieved");

INSTANTIATE_TEST_SUITE_P(
    Table, UnroutableRequests,
    testing::Values(
        Unroutable{
            "NoFile",
            without([](RequestSetup& setup) { setup.fileName.reset(); }),
            status::kInvalidState,
            {error(kNoCode, "Instance ID cannot be retrieved: file object is null"), kNoInstance}},
        Unroutable{
            "NameThatCannotBeRead",
            without([](RequestSetup& setup) {
              setup.fileNameResult = framework::hresult(0x80070005);
            }),
            status::kInvalidState,
            {error(0x80070005, "Instance ID cannot be retrieved from request"), kNoInstance}},
        Unroutable{"NoContext",
                   without([](RequestSetup& setup) { setup.assignResult = status::kOutOfMemory; }),
                   status::kOutOfMemory,
                   {error(0x8007000E, "[IOCT]Request cannot be attached:00310028")}}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(Dispatch, HandlerThatThrows_CompletesTheRequestWithAFailure) {
  story_.onCheck = [] { throw std::bad_alloc(); };
  expectRefused(send(IOCTL_SMARTCARD_IS_PRESENT), status::kOutOfMemory);
  story_.onCheck = [] { throw std::runtime_error("no thread"); };
  expectRefused(send(IOCTL_SMARTCARD_IS_ABSENT), status::kGenFailure);
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x8007000E, "CMyDevice::ProcessIoControl: out of memory"),
                          error(0x8007001F, "CMyDevice::ProcessIoControl: no thread")));
}

// Operations that destroy readers wait for the threads inside.
class GateKeeping : public Dispatch {
 protected:
  // Runs `operation` while a control is inside; returns the readers' story up to that control's
  // end.
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
    std::thread sender(
        [&] { EXPECT_EQ(send(IOCTL_SMARTCARD_IS_ABSENT).status(), status::kSuccess); });
    inside.get_future().wait();
    std::thread operating(operation);
    ended.get_future().wait();
    // The gate was closed first: no thread gets in to begin an exchange that is not ended.
    EXPECT_EQ(send(IOCTL_SMARTCARD_GET_LAST_ERROR).status(), status::kInvalidState);
    auto before = story_.taken();
    leave.set_value();
    sender.join();
    operating.join();
    story_.onCheck = nullptr;
    story_.onEndExchanges = nullptr;
    return before;
  }
};

TEST_F(GateKeeping, ShutDown_EndsExchangesAwaitsAControlInsideAndRefusesLaterOnes) {
  const auto before = runWhileInside([&] { device_->OnQueryStop(wdfDevice()); });
  EXPECT_THAT(before, ElementsAre("exchanges ended 0"));
  EXPECT_THAT(story_.taken(), ElementsAre("shut down 0", "destroyed 0"));
}

TEST_F(GateKeeping, WorkingStateEnteredAgain_AwaitsAControlInside) {
  const auto before = runWhileInside([&] { EXPECT_EQ(framework_.enterD0(), status::kSuccess); });
  EXPECT_THAT(before, ElementsAre("exchanges ended 0"));
  EXPECT_THAT(story_.taken(), ElementsAre("destroyed 0", "made 0"));
  EXPECT_EQ(send(IOCTL_SMARTCARD_IS_ABSENT).status(), status::kSuccess) << "open again";
}

class Cancel : public Dispatch {
 protected:
  FakeWdfRequest& makeWaiting(std::uint32_t code = IOCTL_SMARTCARD_IS_PRESENT) {
    story_.checkResult =
        code == IOCTL_SMARTCARD_IS_ABSENT ? QueryResult::kSuccess : QueryResult::kFailure;
    FakeWdfRequest& request = send(code);
    EXPECT_TRUE(request.markedCancelable());
    log_.clear();
    return request;
  }
  void expectCancelledAndForgotten(const FakeWdfRequest& request) {
    expectRefused(request, status::kCancelled);
    EXPECT_FALSE(reader_->waiting().any(CardEvent::kInserted));
    EXPECT_FALSE(reader_->waiting().any(CardEvent::kRemoved));
  }
};

TEST_F(Cancel, NoRequest_IsLoggedOnly) {
  device_->OnCancel(nullptr);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoCode, "[OnCancel]Invalid request")));
}

TEST_F(Cancel, WaitingRequest_IsTakenOutOfItsListAndCompleted) {
  FakeWdfRequest& request = makeWaiting();
  request.cancel();
  expectCancelledAndForgotten(request);
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("[CREQ]Cancel Insert")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnCancel");
}

TEST_F(Cancel, BeforeTheRequestIsMarked_CompletesItWhileItIsMarked) {
  FakeWdfRequest& request = framework_.makeRequest({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
  request.cancel();
  framework_.dispatch(request);
  expectCancelledAndForgotten(request);
}

TEST_F(Cancel, WaitingRequestWhoseNameCannotBeReadAnyMore_IsTakenOutOfItsList) {
  for (const std::uint32_t code : {IOCTL_SMARTCARD_IS_PRESENT, IOCTL_SMARTCARD_IS_ABSENT}) {
    FakeWdfRequest& request = makeWaiting(code);
    request.rename(L"", framework::hresult(0x80070005));
    request.cancel();
    expectCancelledAndForgotten(request);
    EXPECT_THAT(log_.recordsAboveDebug(),
                ElementsAre(error(0x80070005, "Instance ID cannot be retrieved from request"),
                            error(1223, "[OnCancel]Instance ID cannot be retrieved")));
  }
}

TEST_F(Cancel, WaitingRequestWithTheIndexOfNoReader_IsTakenOutOfItsList) {
  FakeWdfRequest& request = makeWaiting();
  request.rename(L"\\dev7");
  request.cancel();
  expectCancelledAndForgotten(request);
  EXPECT_THAT(log_.errors(), ElementsAre(error(1223, "[OnCancel]The reader is gone")));
}

TEST_F(Cancel, RequestThatWasNeverDispatchedAndHasNoIndex_IsCompletedUnderTheDeviceLock) {
  RequestSetup setup = named(L"\\none");
  setup.onComplete = [&] { EXPECT_TRUE(lockIsHeld()); };
  FakeWdfRequest& request = framework_.makeRequest(setup);
  device_->OnCancel(&request);
  expectRefused(request, status::kCancelled);
  EXPECT_THAT(log_.errors(), ElementsAre(error(kNoCode,
                                               "Instance ID cannot be retrieved from request "
                                               "[filename:\\none]: Device name prefix not found"),
                                         error(1223, "[OnCancel]Instance ID cannot be retrieved")));
}

TEST_F(Cancel, RequestWhoseReaderIsGone_IsCompleted) {
  ASSERT_EQ(device_->OnQueryStop(wdfDevice()), status::kSuccess);
  log_.clear();
  FakeWdfRequest& request = framework_.makeRequest();
  device_->OnCancel(&request);
  expectRefused(request, status::kCancelled);
  EXPECT_THAT(log_.errors(), ElementsAre(error(1223, "[OnCancel]The reader is gone")));
}

}  // namespace
}  // namespace zelta
