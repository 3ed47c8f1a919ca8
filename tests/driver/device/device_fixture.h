// A device as the framework has it: created, with its hardware prepared and in its working state as
// far as a test asks for it, on doubles of the framework, of Winsock and of the readers.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "contract/bytes.h"
#include "contract/status.h"
#include "driver/device/my_device.h"
#include "tests/doubles/framework/fake_framework.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/ports/fake_winsock.h"
#include "tests/doubles/reader/recording_reader.h"

namespace zelta::test {

// The log's code if there is none.
inline constexpr auto kNoCode = static_cast<std::uint32_t>(-500);

constexpr std::uint32_t logCode(Status status) { return static_cast<std::uint32_t>(status); }

class DeviceFixture : public testing::Test {
 protected:
  ~DeviceFixture() override {
    takeDown();
    framework_.driver.giveUp();
    EXPECT_THAT(framework_.complaints(), testing::IsEmpty());
  }

  // The readers that the device makes; a test may change it first.
  ReaderFactory factory_ = [this](std::uint32_t index,
                                  ReaderDevice* device) -> std::unique_ptr<Reader> {
    auto made = std::make_unique<RecordingReader>(index, device, story_);
    reader_ = made.get();
    return made;
  };

  framework::HRESULT create() {
    const framework::HRESULT result =
        CMyDevice::CreateInstance(&framework_.driver, &framework_.init, factory_);
    if (wdfDevice() != nullptr) device_ = static_cast<CMyDevice*>(framework_.hardware().get());
    return result;
  }

  void bringUp() {
    ASSERT_EQ(create(), status::kSuccess);
    ASSERT_EQ(framework_.prepareHardware(), status::kSuccess);
    ASSERT_EQ(framework_.enterD0(), status::kSuccess);
    story_.taken();
    log_.clear();
  }

  // Like the framework; harmless if nothing is up.
  void takeDown() {
    framework_.takeDown();
    device_ = nullptr;
  }

  FakeWdfDevice* wdfDevice() { return framework_.device(); }

  // Passes a request to the device through its queue. It must be completed under the device lock.
  FakeWdfRequest& send(std::uint32_t code, RequestSetup setup = {}) {
    setup.code = code;
    setup.onComplete = [this] { EXPECT_TRUE(lockIsHeld()) << "completed without the device lock"; };
    return framework_.dispatch(setup);
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

  // The references on the device besides the one taken here.
  framework::ULONG referencesOnDevice() {
    device_->AddRef();
    return device_->Release();
  }

  LogCapture log_;
  FakeWinsock winsock_;
  ReaderStory story_;
  FakeFramework framework_;
  CMyDevice* device_ = nullptr;        // the framework's
  RecordingReader* reader_ = nullptr;  // the device's
};

class CreatedDevice : public DeviceFixture {
 protected:
  void SetUp() override {
    ASSERT_EQ(create(), status::kSuccess);
    log_.clear();
  }
};

}  // namespace zelta::test
