// The agent's way to pipes that serialise their operations as Windows' do. It keeps an agent's side
// of the wire protocol as the system's own port does: an answer waits until the driver has read it,
// and is taken back if the driver sends something else first.
//
// Deadlines are not looked at: a test gives the agent more time than it takes itself.
// Threads: as the port's. The pipes outlive it.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "agent/link/pipe_client_port.h"
#include "tests/doubles/pipes/serialising_pipes.h"

namespace zelta::test {

class SerialisingPort final : public agent::PipeClientPort {
 public:
  explicit SerialisingPort(SerialisingPipes& pipes) : pipes_(pipes) {}

  // Until an answer waits for the driver to read it.
  void waitUntilAnswering();

  void watch(const std::vector<std::string>&) override {}
  agent::OpenedPipe open(const std::string& pipeName) override;
  void waitForChange(std::optional<std::chrono::milliseconds> limit) override;
  void cancel() override { cancelled_ = true; }

 private:
  class Connection;

  SerialisingPipes& pipes_;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> answering_{false};
};

}  // namespace zelta::test
