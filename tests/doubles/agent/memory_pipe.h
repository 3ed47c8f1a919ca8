// A client end of a pipe without a buffer and without a driver: the test plays the driver's part,
// and reads what is written at once or not yet.
//
// Any thread may call.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "agent/link/pipe_client_port.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::test {

class MemoryPipe : public agent::PipeConnection {
 public:
  // What the agent reads from now on.
  void give(const Bytes& bytes);
  // Each write of the agent, in order; waits until there are `count`.
  std::vector<Bytes> takeWrites(std::size_t count);
  std::size_t writes();
  // From now on the driver reads nothing until `letWrites`; a flush waits for that, too.
  void holdWrites();
  void letWrites();
  // Until a write waits.
  void waitUntilWriting();

  agent::IoResult awaitCommand() override;
  agent::IoResult read(void* data, std::uint32_t size,
                       std::optional<agent::SteadyClock::time_point> deadline) override;
  agent::IoResult answer(const Bytes& bytes, agent::SteadyClock::time_point deadline) override;
  agent::IoResult post(const void* data, std::uint32_t size,
                       std::optional<agent::SteadyClock::time_point> deadline) override;
  agent::IoResult flush() override;
  void cancel() override;

 private:
  // Bytes given meanwhile end the wait if it is an answer. What times out is not written.
  agent::IoResult write(Bytes bytes, std::optional<agent::SteadyClock::time_point> deadline,
                        bool isAnswer);

  // Whether `ready` came before the deadline, if there is one.
  bool waitUntil(platform::MutexLock& lock, std::optional<agent::SteadyClock::time_point> deadline,
                 const std::function<bool()>& ready) ZELTA_REQUIRES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  Bytes given_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Bytes> written_ ZELTA_GUARDED_BY(mutex_);
  bool held_ ZELTA_GUARDED_BY(mutex_) = false;
  bool writing_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::test
