// Requests of any kind in any order, with cards that come and go and power that does, and what must
// hold whatever they are. Shared by the fuzzer and by the test that plays its corpus.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "driver/device/my_device.h"
#include "reader/reader.h"
#include "tests/doubles/framework/fake_framework.h"
#include "tests/support/fake_winsock.h"
#include "tests/support/fuzz_input.h"
#include "tests/support/log_capture.h"

namespace zelta::test {

// What the card says until further notice.
struct PlayedCard {
  bool in = false;
  Bytes atr{0x3B, 0x00};
  Bytes response{0x90, 0x00};
};

class PlayedReader final : public Reader {
 public:
  PlayedReader(std::uint32_t index, ReaderDevice* owner, PlayedCard& card)
      : Reader(index, owner), card_(card) {}

  QueryResult QueryTransmit(const Bytes&, ResponseBuffer& response) override {
    response.assign(card_.response.data(), card_.response.size());
    return result();
  }
  QueryResult QueryAtr(Bytes& atr, bool) override {
    atr = card_.atr;
    return result();
  }
  QueryResult CheckATR() override { return result(); }
  bool NotifyCardReady() override { return card_.in; }
  std::uint32_t serverThread() override { return 0; }
  void endExchanges() noexcept override { markAbsentForGood(); }
  void shutdown() override {
    const TracedLock lock("test", waiting().deviceLock(), __LINE__);
    waiting().completeAll(CardEvent::kInserted, status::kCancelled);
    waiting().completeAll(CardEvent::kRemoved, status::kCancelled);
  }

  void report(CardEvent event) {
    const TracedLock lock("test", waiting().deviceLock(), __LINE__);
    waiting().note(event);
    setState(event == CardEvent::kInserted ? SCARD_SWALLOWED : SCARD_ABSENT);
    waiting().completeAll(event, status::kSuccess);
  }

 private:
  QueryResult result() const { return card_.in ? QueryResult::kSuccess : QueryResult::kTimeout; }

  PlayedCard& card_;
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
                                        auto made =
                                            std::make_unique<PlayedReader>(index, device, card_);
                                        reader_ = made.get();
                                        return made;
                                      }) == status::kSuccess,
            "the device is created");
    require(framework_.prepareHardware() == status::kSuccess, "the hardware is prepared");
    require(framework_.enterD0() == status::kSuccess, "the working state is entered");
  }

  void step() {
    switch (input_.byte() % 12) {
      case 0:
        card_.in = !card_.in;
        if (reader_ != nullptr) {
          reader_->report(card_.in ? CardEvent::kInserted : CardEvent::kRemoved);
        }
        break;
      case 1:  // unnoticed
        card_.in = !card_.in;
        break;
      case 2:
        card_.atr = input_.bytes(input_.byte() % 40);
        break;
      case 3:
        card_.response = input_.bytes(input_.byte());
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
  PlayedCard card_;
  FakeFramework framework_;
  PlayedReader* reader_ = nullptr;  // the device's; null outside the working state
  std::vector<FakeWdfRequest*> requests_;
  std::vector<FakeWdfRequest*> open_;  // those that were not completed before this step
};

// Each step is a byte and what it takes.
inline void playAnyRequests(const std::uint8_t* data, std::size_t size) {
  AnyRequests(data, size).play();
}

}  // namespace zelta::test
