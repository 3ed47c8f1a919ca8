// Pipes before others that can stop a thread just before it enters a call: in the gap in which a
// cancel from another thread finds nothing to end yet.
//
// Any thread may call. Waits end with false after 30 seconds.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "platform/sync/sync.h"
#include "tests/doubles/pipes/forwarding_pipes.h"

namespace zelta::test {

class GapPipes final : public ForwardingPipes {
 public:
  enum class Call { kNone, kConnect, kRead, kWrite, kFlush };

  using ForwardingPipes::ForwardingPipes;

  // The next such call on a pipe whose name ends so is held until `letGo`.
  void holdNext(Call call, const std::string& nameEnd);
  bool waitUntilHeld();
  void letGo();
  // Waits until so many cancels of the pipe have ended without finding anything.
  bool waitForMissedCancels(const std::string& nameEnd, std::size_t count);
  // Null if the name has not been created.
  platform::PipeHandleValue handle(const std::string& name);

  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override;
  bool connect(platform::PipeHandleValue pipe) override;
  bool cancel(platform::PipeHandleValue pipe) override;
  bool read(platform::PipeHandleValue pipe, void* data, std::uint32_t size) override;
  bool write(platform::PipeHandleValue pipe, const void* data, std::uint32_t size) override;
  bool flush(platform::PipeHandleValue pipe) override;

 private:
  void passGap(Call call, platform::PipeHandleValue pipe);
  std::string nameOf(platform::PipeHandleValue pipe) const ZELTA_REQUIRES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  Call hold_ ZELTA_GUARDED_BY(mutex_) = Call::kNone;
  std::string holdName_ ZELTA_GUARDED_BY(mutex_);
  bool held_ ZELTA_GUARDED_BY(mutex_) = false;
  std::map<platform::PipeHandleValue, std::string> names_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::string, std::size_t> missed_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
