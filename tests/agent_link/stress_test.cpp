// Everything at once, on the system's pipes: each request is completed exactly once, nothing hangs.
#include <thread>

#include "tests/agent_link/events_test.h"
#include "tests/support/process_state.h"

namespace zelta::test {
namespace {

using Stress = EventsTest;

// Presence requests, cancellations and dying agents at once; then the reader is torn down in the
// middle, as by the device.
TEST_F(Stress, EverythingAtOnce_LeavesNoRequestIncomplete) {
  const std::size_t threads = threadCount();
  for (int round = 0; round < 15; ++round) {
    start();
    ASSERT_TRUE(waitUntilCreated());
    std::vector<std::unique_ptr<FakeRequest>> requests;
    for (int i = 0; i < 30; ++i) requests.push_back(std::make_unique<FakeRequest>(device_));
    reader().IoSmartCardIsPresent(requests[0].get(), 0, 0);
    std::thread poster([&] {
      for (std::size_t i = 1; i < requests.size(); ++i) {
        if (i % 2 == 0) reader().IoSmartCardIsPresent(requests[i].get(), 0, 0);
        if (i % 2 != 0) reader().IoSmartCardIsAbsent(requests[i].get(), 0, 0);
        if (i % 5 == 0) requests[i]->cancel();
      }
    });
    setCard(round % 2 == 0);
    ASSERT_TRUE(agent_.connect(answer()));
    for (int i = 0; i < 5; ++i) agent_.sendEvent(static_cast<std::uint32_t>(i % 2));
    if (round % 3 == 0) agent_.die();
    poster.join();
    stop();
    agent_.die();
    for (const auto& request : requests) {
      EXPECT_TRUE(request->completed());
    }
  }
  EXPECT_LE(threadsLeft(threads), threads);
}

}  // namespace
}  // namespace zelta::test
