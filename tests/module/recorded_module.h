// The module under the recording framework, with an agent on the real pipes. At the end of each
// test the framework must have nothing to complain about.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/io_controls.h"
#include "contract/wire.h"
#include "tests/doubles/framework/recording_framework.h"
#include "tests/module/module_world.h"

namespace zelta::test {

class RecordedModuleTest : public ::testing::Test {
 protected:
  RecordedModuleTest() : framework_(std::make_unique<RecordingFramework>(exports_.driver())) {}

  void SetUp() override { ASSERT_TRUE(framework_->bringUp()); }

  void TearDown() override {
    if (!takenDown_) takeDown();
    EXPECT_THAT(framework_->complaints(), ::testing::IsEmpty());
  }

  void takeDown() {
    takenDown_ = true;
    framework_->takeDown();
  }

  // The agent comes, with a card or without, and is let in: the driver asks it for the ATR.
  void connectAgent() {
    RecordingRequest& waiting = framework_->dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    ASSERT_TRUE(agent_.connect());
    if (agent_.isCardIn()) {
      ASSERT_TRUE(waiting.waitCompleted(kLong));
    }
  }

  // The status of a request that is not to wait.
  framework::HRESULT statusOf(const RequestParts& parts) {
    RecordingRequest& request = framework_->dispatch(parts);
    EXPECT_EQ(request.completions(), 1);
    return request.status();
  }

  ModuleWorld world_;
  DriverExports exports_;
  std::unique_ptr<RecordingFramework> framework_;
  CardAgent agent_;

 private:
  bool takenDown_ = false;
};

}  // namespace zelta::test
