#include "driver/device/dispatch_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace zelta {
namespace {

TEST(DispatchGate, IsClosedAtFirst) {
  DispatchGate gate;
  EXPECT_FALSE(DispatchGate::Pass(gate).admitted());
}

TEST(DispatchGate, AdmitsSeveralAtOnceWhileOpen) {
  DispatchGate gate;
  gate.open();
  const DispatchGate::Pass first(gate);
  const DispatchGate::Pass second(gate);
  EXPECT_TRUE(first.admitted());
  EXPECT_TRUE(second.admitted());
}

TEST(DispatchGate, ClosedAdmitsNobodyAndMayBeClosedAgain) {
  DispatchGate gate;
  gate.open();
  gate.close();
  gate.close();
  gate.awaitEmpty();
  EXPECT_FALSE(DispatchGate::Pass(gate).admitted());
  gate.open();
  EXPECT_TRUE(DispatchGate::Pass(gate).admitted());
}

TEST(DispatchGate, PassThatWasRefusedDoesNotLeave) {
  DispatchGate gate;
  gate.open();
  {
    const DispatchGate::Pass inside(gate);
    ASSERT_TRUE(inside.admitted());
  }
  gate.close();
  { const DispatchGate::Pass refused(gate); }
  gate.open();
  gate.close();
  gate.awaitEmpty();  // would wait for ever where the refused one had been counted
}

TEST(DispatchGate, ClosingDoesNotWaitForThoseInsideAndLetsNobodyElseIn) {
  DispatchGate gate;
  gate.open();
  const DispatchGate::Pass inside(gate);
  gate.close();  // on the thread that is inside: would wait for ever
  EXPECT_TRUE(inside.admitted());
  EXPECT_FALSE(DispatchGate::Pass(gate).admitted());
}

TEST(DispatchGate, TheLastOneInsideIsAwaited) {
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

TEST(DispatchGate, NobodyIsInsideWhileItIsClosed) {
  DispatchGate gate;
  gate.open();
  int shared = 0;  // written only while the gate is closed
  std::atomic<bool> done{false};
  std::vector<std::thread> visitors;
  for (int i = 0; i < 3; ++i) {
    visitors.emplace_back([&] {
      while (!done) {
        const DispatchGate::Pass pass(gate);
        if (pass.admitted()) {
          EXPECT_EQ(shared % 2, 0);
        }
      }
    });
  }
  for (int round = 0; round < 500; ++round) {
    gate.close();
    gate.awaitEmpty();
    ++shared;
    ++shared;
    gate.open();
  }
  done = true;
  for (std::thread& visitor : visitors) visitor.join();
}

}  // namespace
}  // namespace zelta
