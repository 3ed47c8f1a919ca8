// A device as the framework has it: created, with its hardware prepared and in its working state as
// far as a test asks for it, on doubles of the framework, of Winsock and of the readers.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "contract/bytes.h"
#include "driver/device/my_device.h"
#include "platform/process/ports.h"
#include "tests/doubles/framework/fake_wdf_device.h"
#include "tests/driver/device/recording_reader.h"
#include "tests/support/fake_winsock.h"
#include "tests/support/log_capture.h"

namespace zelta::test {

class DeviceFixture : public testing::Test {
 protected:
  DeviceFixture() : systemPorts_(platform::ports()) {
    platform::Ports ports = systemPorts_;
    ports.winsock = &winsock_;
    platform::replacePorts(ports);
  }

  ~DeviceFixture() override {
    takeDown();
    wdf_.reset();
    EXPECT_EQ(livingObjects(), 0) << "references on the framework's objects not released";
    platform::replacePorts(systemPorts_);
  }

  // The readers that the device makes; the test may change it before.
  ReaderFactory factory_ = [this](std::uint32_t index,
                                  ReaderDevice* device) -> std::unique_ptr<Reader> {
    auto made = std::make_unique<RecordingReader>(index, device, story_);
    reader_ = made.get();
    return made;
  };

  framework::HRESULT create() {
    const framework::HRESULT result = CMyDevice::CreateInstance(wdf_.get(), &init_, factory_);
    if (wdf_->device) {
      framework::ComPtr<framework::IPnpCallbackHardware> hardware;
      wdf_->device->deviceCallback->QueryInterface(framework::IPnpCallbackHardware::iid,
                                                   hardware.putVoid());
      device_ = static_cast<CMyDevice*>(hardware.get());  // the framework keeps it
    }
    return result;
  }

  void bringUp() {
    ASSERT_EQ(create(), 0);
    ASSERT_EQ(device_->OnPrepareHardware(wdfDevice()), 0);
    ASSERT_EQ(device_->OnD0Entry(wdfDevice(), framework::kPowerDeviceD3Final), 0);
    story_.taken();
    log_.clear();
  }

  // Down as the framework does it; harmless where nothing is up.
  void takeDown() {
    if (device_ == nullptr) return;
    device_->OnD0Exit(wdfDevice(), framework::kPowerDeviceD3Final);
    device_->OnReleaseHardware(wdfDevice());
    device_ = nullptr;
    wdf_->device->letGo();
  }

  FakeWdfDevice* wdfDevice() { return wdf_->device.get(); }

  // A request that is handed to the device through its queue, as the framework does it.
  std::shared_ptr<Outcome> send(std::uint32_t code, RequestSetup setup = {}) {
    setup.onComplete = [this] { EXPECT_TRUE(lockIsHeld()) << "completed without the device lock"; };
    auto* request = new FakeWdfRequest(setup);
    const std::shared_ptr<Outcome> outcome = request->outcome();
    dispatch(request, code, setup);
    return outcome;
  }

  // Takes over the framework's reference.
  void dispatch(FakeWdfRequest* request, std::uint32_t code, const RequestSetup& setup) {
    framework::ComPtr<framework::IQueueCallbackDeviceIoControl> queue;
    wdfDevice()->queueCallback->QueryInterface(framework::IQueueCallbackDeviceIoControl::iid,
                                               queue.putVoid());
    queue->OnDeviceIoControl(nullptr, request, code, setup.input.value_or(Bytes{}).size(),
                             setup.outputCapacity.value_or(0));
  }

  bool lockIsHeld() {
    bool held = true;
    std::thread([&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
      if (!device_->deviceLock().tryEnter()) return;
      held = false;
      device_->deviceLock().leave();
    }).join();
    return held;
  }

  LogCapture log_;
  FakeWinsock winsock_;
  ReaderStory story_;
  FakeWdfDeviceInitialize init_;
  framework::ComPtr<FakeWdfDriver> wdf_ =
      framework::ComPtr<FakeWdfDriver>::adopt(new FakeWdfDriver);
  CMyDevice* device_ = nullptr;        // the framework's
  RecordingReader* reader_ = nullptr;  // the device's

 private:
  const platform::Ports systemPorts_;
};

// Codes and names of the tests' expectations.
inline constexpr auto kNoCode = static_cast<std::uint32_t>(-500);

}  // namespace zelta::test
