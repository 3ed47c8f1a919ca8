#include "tests/agent_link/hostile_agent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "agent_link/pipe_reader.h"
#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/pipes/forwarding_pipes.h"
#include "tests/doubles/pipes/scripted_pipes.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/support/numbers.h"

namespace zelta::test {

namespace {

// Runs every handler that asks the agent, on the rest of its bytes.
void ask(PipeReader& reader, FakeReaderDevice& device) {
  std::vector<std::unique_ptr<FakeRequest>> requests;
  const auto handle = [&](void (Reader::*handler)(IoRequest*, std::size_t, std::size_t),
                          const Bytes& input) {
    requests.push_back(std::make_unique<FakeRequest>(device));
    requests.back()->withInput(input).withOutput(4096);
    (reader.*handler)(requests.back().get(), input.size(), 4096);
  };
  handle(&Reader::IoSmartCardPower, number(SCARD_COLD_RESET));
  handle(&Reader::IoSmartCardTransmit, number(0, number(kTransmitHeaderSize, {0, 0xA4, 4, 0})));
  handle(&Reader::IoSmartCardGetAttribute, number(SCARD_ATTR_ATR_STRING));
  handle(&Reader::IoSmartCardSetProtocol, number(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1));
  handle(&Reader::IoSmartCardIsPresent, {});
  reader.shutdown();
  for (const auto& request : requests) EXPECT_TRUE(request->completed());
}

}  // namespace

void playHostileAgent(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return;
  const std::size_t announced = data[0] | std::size_t{data[1]} << 8;
  const std::size_t events = std::min(announced, size - 2);
  const std::uint8_t* const command = data + 2 + events;
  ScriptedPipes pipes;
  for (const auto& [name, bytes] : {std::pair{eventPipeName(0), Bytes(data + 2, command)},
                                    {commandPipeName(0), Bytes(command, data + size)}}) {
    pipes.feed(name, bytes);
    pipes.endFeed(name);
    pipes.holdConnect(name);
    pipes.letConnect(name);  // once: there is no second agent
  }
  const ScopedPipes scoped(pipes);
  const LogCapture log;
  FakeReaderDevice device;
  FakeRequest insertion(device);
  PipeReader reader(0, &device);
  device.onCancel = [&reader](IoRequest& request) { reader.IoCancelRequest(&request); };
  // Queued, as there is no agent yet, and so lets it in.
  reader.IoSmartCardIsPresent(&insertion, 0, 0);
  EXPECT_TRUE(pipes.waitForCall(PipeCallKind::kDisconnect, commandPipeName(0)))
      << "the agent was not dropped";
  ask(reader, device);
  EXPECT_TRUE(insertion.completed());
}

}  // namespace zelta::test
