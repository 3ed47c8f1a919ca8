// A client end of a pipe without a driver: the test plays the driver's part, and can hold a write
// back.
//
// Any thread may call.
#pragma once

#include <vector>

#include "agent/bytes.h"
#include "agent/pipe_client_port.h"
#include "platform/sync.h"

namespace zelta::test {

class MemoryPipe : public agent::PipeConnection {
 public:
  // What the agent reads from now on.
  void give(const agent::Bytes& bytes);
  // Each write of the agent, in order; waits until there are `count`.
  std::vector<agent::Bytes> takeWrites(std::size_t count);
  std::size_t writes();
  // From now on writes wait until `letWrites`.
  void holdWrites();
  void letWrites();
  // Until a write waits.
  void waitUntilWriting();

  agent::IoResult read(void* data, std::uint32_t size,
                       std::optional<agent::SteadyClock::time_point> deadline) override;
  // Deadlines are those of a pipe that holds its writes back.
  agent::IoResult write(const void* data, std::uint32_t size,
                        std::optional<agent::SteadyClock::time_point> deadline) override;
  agent::IoResult post(const void* data, std::uint32_t size,
                       std::optional<agent::SteadyClock::time_point> deadline) override {
    return write(data, size, deadline);
  }
  agent::IoResult flush() override { return agent::IoResult::Done; }
  void cancel() override;

 private:
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  agent::Bytes given_ ZELTA_GUARDED_BY(mutex_);
  std::vector<agent::Bytes> written_ ZELTA_GUARDED_BY(mutex_);
  bool held_ ZELTA_GUARDED_BY(mutex_) = false;
  bool writing_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::test
