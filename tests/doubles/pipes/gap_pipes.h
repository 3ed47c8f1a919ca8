// Pipes before others that can stop a thread just before it enters a call: in the gap in which a
// cancel from another thread finds nothing to end yet.
//
// Any thread may call. Waits end with false after 30 seconds.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

#include "tests/doubles/pipes/forwarding_pipes.h"
#include "tests/support/shared.h"

namespace zelta::test {

class GapPipes final : public ForwardingPipes {
 public:
  enum class Call { kNone, kConnect, kDisconnect, kCancel, kRead, kWrite };

  using ForwardingPipes::ForwardingPipes;

  // Holds the next such call on a pipe whose name ends with `nameEnd` until `letGo`.
  void holdNext(Call call, const std::string& nameEnd);
  bool waitUntilHeld() { return state_.lock().waitFor(kLimit, &State::held); }
  void letGo() { state_.lock()->held = false; }
  // Waits until `count` cancels of the pipe have found nothing to cancel.
  bool waitForMissedCancels(const std::string& nameEnd, std::size_t count);
  // Null if the name has not been created.
  platform::PipeHandleValue handle(const std::string& name);

  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override;
  bool connect(platform::PipeHandleValue pipe) override;
  bool disconnect(platform::PipeHandleValue pipe) override;
  bool cancel(platform::PipeHandleValue pipe) override;
  bool read(platform::PipeHandleValue pipe, void* data, std::uint32_t size) override;
  bool write(platform::PipeHandleValue pipe, const void* data, std::uint32_t size) override;

 private:
  struct State {
    Call hold = Call::kNone;
    std::string holdName;
    bool held = false;
    std::map<platform::PipeHandleValue, std::string> names;
    std::map<std::string, std::size_t> missed;
  };
  static constexpr std::chrono::seconds kLimit{30};

  void passGap(Call call, platform::PipeHandleValue pipe);

  Shared<State> state_;
};

}  // namespace zelta::test
