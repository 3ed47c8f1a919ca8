// Several callers at the same time, with the agent's events in between.
#include <thread>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/module/hosted_module.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

class ModuleConcurrencyTest : public HostedModuleTest {};

constexpr int kCallers = 4;

Bytes commandOf(int caller, int index) {
  const auto length = static_cast<std::size_t>(1 + (caller * 31 + index * 17) % 300);
  Bytes apdu(length, static_cast<std::uint8_t>(index));
  apdu[0] = static_cast<std::uint8_t>(caller);
  return apdu;
}

TEST_F(ModuleConcurrencyTest, NoAnswerGoesToTheWrongCaller) {
  // An ATR that leaves the selected protocol alone when the events read it again.
  connectWithPoweredCard(SCARD_PROTOCOL_T0, CardAgent::atrOfT0());
  std::atomic<int> wrong{0};
  std::atomic<bool> done{false};
  std::thread events([&] {
    const std::string session = "12345678-9abc-def0-1234-56789abcdef0";
    for (int i = 0; !done; ++i) {
      const bool sent = i % 5 == 4   ? agent_.sendSessionLogId(session)
                        : i % 2 == 0 ? agent_.sendEvent(AgentEvent::kCardInserted)
                                     : agent_.sendEvent(AgentEvent::kCardRemoved);
      // Each is behind the reader before the next is sent: a check takes its turn with it.
      if (!sent || status(IOCTL_SMARTCARD_IS_PRESENT) != answer::kSuccess) ++wrong;
    }
  });
  std::vector<std::thread> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0; i < repetitions(250); ++i) {
        const Bytes apdu = commandOf(caller, i);
        if (transmit(apdu, SCARD_PROTOCOL_T0) != CardAgent::responseTo(apdu)) ++wrong;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  done = true;
  events.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ModuleConcurrencyTest, EveryKindOfControlAtTheSameTimeWhileAgentsComeAndGo) {
  agent_.setCardIn(CardAgent::atrOfT1());
  std::atomic<bool> done{false};
  std::atomic<int> unfinished{0};
  std::vector<std::thread> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      const std::uint32_t codes[] = {IOCTL_SMARTCARD_GET_STATE, IOCTL_SMARTCARD_POWER,
                                     IOCTL_SMARTCARD_SET_PROTOCOL, IOCTL_SMARTCARD_TRANSMIT,
                                     IOCTL_SMARTCARD_GET_ATTRIBUTE};
      for (int i = caller; !done; ++i) {
        const host::IoResult result =
            control(codes[i % 5], number(1) + number(8) + Bytes{0, 1, 2}, 64);
        if (result.status == host::kTimedOut) ++unfinished;
      }
    });
  }
  // Somebody waits for a card all the time, from before the first agent comes.
  const auto first = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  callers.emplace_back([&] {
    if (!first->wait(kLong)) ++unfinished;
    while (!done) {
      if (status(IOCTL_SMARTCARD_IS_PRESENT) == host::kTimedOut) ++unfinished;
    }
  });
  for (int round = 0; round < 30; ++round) {
    agent_.die();
    EXPECT_TRUE(agent_.connect());
    EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  }
  done = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(unfinished, 0);
}

}  // namespace
}  // namespace zelta::test
