#include "driver/device/dispatch_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

namespace zelta {
namespace {

TEST(DispatchGate, Closed_AdmitsNobodyAndMayBeClosedAgain) {
  DispatchGate gate;
  EXPECT_FALSE(DispatchGate::Pass(gate).admitted()) << "closed at first";
  gate.open();
  gate.close();
  gate.close();
  gate.awaitEmpty();
  EXPECT_FALSE(DispatchGate::Pass(gate).admitted());
  gate.open();
  EXPECT_TRUE(DispatchGate::Pass(gate).admitted());
}

TEST(DispatchGate, Open_AdmitsSeveralAtOnceAndClosingDoesNotWaitForThem) {
  DispatchGate gate;
  gate.open();
  const DispatchGate::Pass first(gate);
  const DispatchGate::Pass second(gate);
  EXPECT_TRUE(first.admitted());
  EXPECT_TRUE(second.admitted());
  gate.close();  // on the thread that is inside
  EXPECT_FALSE(DispatchGate::Pass(gate).admitted());
}

TEST(DispatchGate, RefusedPass_IsNotCounted) {
  DispatchGate gate;
  gate.open();
  std::optional<DispatchGate::Pass> inside(std::in_place, gate);
  gate.close();
  { const DispatchGate::Pass refused(gate); }
  inside.reset();
  gate.awaitEmpty();  // would block if the refused thread had been counted
}

TEST(DispatchGate, LastOneInside_IsAwaited) {
  DispatchGate gate;
  gate.open();
  std::promise<void> inside;
  std::promise<void> leave;
  std::atomic<bool> left{false};
  std::thread visitor([&] {
    const DispatchGate::Pass pass(gate);
    inside.set_value();
    leave.get_future().wait();
    left = true;
  });
  inside.get_future().wait();
  gate.close();
  std::thread closer([&] {
    gate.awaitEmpty();
    EXPECT_TRUE(left);
  });
  leave.set_value();
  closer.join();
  visitor.join();
}

}  // namespace
}  // namespace zelta
