// Sends requests of any kind in any order, while the card and the power come and go, and checks
// what must always hold. Shared by the fuzzer and by the test that plays its corpus.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "contract/io_controls.h"
#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "driver/device/my_device.h"
#include "tests/doubles/framework/fake_framework.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/ports/fake_winsock.h"
#include "tests/doubles/reader/scripted_reader.h"
#include "tests/support/fuzz_input.h"

namespace zelta::test {

class PlayedReader final : public ScriptedReader {
 public:
  using ScriptedReader::ScriptedReader;

  void endExchanges() noexcept override { markAbsentForGood(); }
  void shutdown() override {
    const TracedLock lock("test", waiting().deviceLock(), __LINE__);
    waiting().completeAll(CardEvent::kInserted, status::kCancelled);
    waiting().completeAll(CardEvent::kRemoved, status::kCancelled);
  }
};

class AnyRequests {
 public:
  AnyRequests(const std::uint8_t* data, std::size_t size) : input_(data, size) {}

  void play() {
    bringUp();
    while (!input_.atEnd()) {
      step();
      for (const FakeWdfRequest* request : open_) check(*request);
      open_.erase(std::remove_if(open_.begin(), open_.end(),
                                 [](const FakeWdfRequest* each) { return each->completed(); }),
                  open_.end());
    }
    leaveWorkingState(&FakeFramework::exitD0);
    framework_.takeDown();
    framework_.driver.giveUp();
    const std::vector<std::string> complaints = framework_.complaints();
    require(complaints.empty(), complaints.empty() ? "" : complaints.front().c_str());
  }

 private:
  static constexpr std::size_t kMostRequests = 200;

  void bringUp() {
    require(CMyDevice::CreateInstance(&framework_.driver, &framework_.init,
                                      [this](std::uint32_t index, ReaderDevice* device) {
                                        auto made = std::make_unique<PlayedReader>(index, device);
                                        reader_ = made.get();
                                        return made;
                                      }) == status::kSuccess,
            "the device is created");
    require(framework_.prepareHardware() == status::kSuccess, "the hardware is prepared");
    require(framework_.enterD0() == status::kSuccess, "the working state is entered");
  }

  // The next reader's card is the former one's.
  void showCard() {
    if (reader_ == nullptr) return;
    const QueryResult result = cardIn_ ? QueryResult::kSuccess : QueryResult::kTimeout;
    reader_->transmitResult = reader_->atrResult = result;
    reader_->checkResult = result;
    reader_->notifyResult = cardIn_;
    reader_->atr = atr_;
    reader_->transmitResponse = response_;
  }

  void step() {
    showCard();
    switch (input_.byte() % 12) {
      case 0:
        cardIn_ = !cardIn_;
        if (reader_ != nullptr) {
          reader_->report(cardIn_ ? CardEvent::kInserted : CardEvent::kRemoved);
        }
        break;
      case 1:  // unnoticed
        cardIn_ = !cardIn_;
        break;
      case 2:
        atr_ = input_.bytes(input_.byte() % 40);
        break;
      case 3:
        response_ = input_.bytes(input_.byte());
        break;
      case 4:
        cancel();
        break;
      case 5:
        if (FakeWdfRequest* const request = findWaiting()) request->rename(fileName());
        break;
      case 6:
        changePower();
        break;
      default:
        send();
        break;
    }
  }

  void send() {
    if (requests_.size() == kMostRequests) return;
    static constexpr std::uint32_t kCodes[] = {
        IOCTL_SMARTCARD_POWER,        IOCTL_SMARTCARD_GET_ATTRIBUTE, IOCTL_SMARTCARD_SET_ATTRIBUTE,
        IOCTL_SMARTCARD_CONFISCATE,   IOCTL_SMARTCARD_TRANSMIT,      IOCTL_SMARTCARD_EJECT,
        IOCTL_SMARTCARD_SWALLOW,      IOCTL_SMARTCARD_IS_PRESENT,    IOCTL_SMARTCARD_IS_ABSENT,
        IOCTL_SMARTCARD_SET_PROTOCOL, IOCTL_SMARTCARD_GET_STATE,     IOCTL_SMARTCARD_GET_LAST_ERROR,
        IOCTL_SMARTCARD_GET_PERF_CNTR};
    RequestSetup setup;
    const std::uint8_t parts = input_.byte();
    setup.code = (parts & 0x01) != 0 ? input_.number() : input_.pick(kCodes);
    if ((parts & 0x02) == 0) setup.input = input_.bytes(input_.byte());
    if ((parts & 0x04) == 0) setup.outputCapacity = input_.byte();
    if ((parts & 0x08) != 0) setup.fileName = fileName();
    if ((parts & 0x10) != 0) setup.fileName.reset();
    if ((parts & 0x20) != 0) setup.fileNameResult = status::kGenFailure;
    if ((parts & 0x40) != 0) setup.assignResult = status::kOutOfMemory;
    setup.cleanUpAtCompletion = (parts & 0x80) != 0;
    const bool cancelledBefore = parts == 0xFF;
    FakeWdfRequest& request = framework_.makeRequest(setup);
    if (cancelledBefore) request.cancel();
    framework_.dispatch(request);
    requests_.push_back(&request);
    open_.push_back(&request);
  }

  std::wstring fileName() {
    static constexpr const wchar_t* kNames[] = {
        L"\\dev0", L"dev0", L"\\dev1", L"\\dev-1", L"", L"\\reader0", L"\\dev99999999999", nullptr};
    const wchar_t* const name = input_.pick(kNames);
    if (name != nullptr) return name;
    const Bytes characters = input_.bytes(input_.byte());
    std::wstring any;
    for (const std::uint8_t c : characters) any += static_cast<wchar_t>(c < 0x80 ? c : c * 257);
    return any;
  }

  FakeWdfRequest* findWaiting() {
    const auto found = std::find_if(open_.begin(), open_.end(),
                                    [](const FakeWdfRequest* each) { return !each->completed(); });
    return found == open_.end() ? nullptr : *found;
  }

  void cancel() {
    if (requests_.empty()) return;
    FakeWdfRequest& request = *requests_[input_.byte() % requests_.size()];
    const bool waited = !request.completed();
    request.cancel();
    require(request.completed(), "a cancelled request is completed");
    require(!waited || request.status() == status::kCancelled, "it is completed as cancelled");
  }

  void changePower() {
    switch (input_.byte() % 4) {
      case 0:
        leaveWorkingState(&FakeFramework::exitD0);
        (void)framework_.enterD0();
        break;
      case 1:
        leaveWorkingState([](FakeFramework& framework) {
          return framework.pnp()->OnQueryRemove(framework.device());
        });
        break;
      case 2:
        leaveWorkingState([](FakeFramework& framework) {
          framework.pnp()->OnSurpriseRemoval(framework.device());
          return status::kSuccess;
        });
        break;
      default:
        leaveWorkingState(&FakeFramework::exitD0);
        framework_.takeDown();
        bringUp();
        break;
    }
  }

  template <typename Leave>
  void leaveWorkingState(Leave leave) {
    reader_ = nullptr;
    require(std::invoke(leave, framework_) == status::kSuccess, "the working state is left");
    require(findWaiting() == nullptr, "no request waits outside the working state");
  }

  static void check(const FakeWdfRequest& request) {
    if (!request.completed()) {
      require(request.markedCancelable(), "a request that waits can be cancelled");
      require(request.code() == IOCTL_SMARTCARD_IS_PRESENT ||
                  request.code() == IOCTL_SMARTCARD_IS_ABSENT,
              "only a question for the card's presence waits");
    } else if (framework::failed(request.status())) {
      require(request.information().value_or(0) == 0, "a failure has no output");
      require(request.outputSize() == 0 ||
                  std::count(request.output().begin(), request.output().end(), 0) ==
                      static_cast<std::ptrdiff_t>(request.outputSize()),
              "a failure writes nothing");
    }
  }

  FuzzInput input_;
  const LogCapture log_;
  FakeWinsock winsock_;
  // What the card says until further notice.
  bool cardIn_ = false;
  Bytes atr_{0x3B, 0x00};
  Bytes response_{0x90, 0x00};
  FakeFramework framework_;
  PlayedReader* reader_ = nullptr;  // the device's; null outside the working state
  std::vector<FakeWdfRequest*> requests_;
  std::vector<FakeWdfRequest*> open_;  // not completed before this step
};

// Each step is a byte and its arguments.
inline void playAnyRequests(const std::uint8_t* data, std::size_t size) {
  AnyRequests(data, size).play();
}

}  // namespace zelta::test
