// One call of a pipe on its own thread, with its result and its last error.
//
// The thread starts at once and is joined by `outcome` or the destructor: a call that never ends
// holds the test up until its time-out.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <thread>

namespace zelta::test {

struct PipeOutcome {
  bool ok = false;
  std::uint32_t error = 0;  // 0 if the call succeeded

  bool operator==(const PipeOutcome& other) const { return ok == other.ok && error == other.error; }
};

inline constexpr PipeOutcome kPipeOk{true, 0};
inline PipeOutcome pipeError(std::uint32_t error) { return {false, error}; }

void PrintTo(const PipeOutcome& outcome, std::ostream* stream);

// Makes the call on this thread.
PipeOutcome outcomeOf(const std::function<bool()>& call);

class PipeCallThread {
 public:
  explicit PipeCallThread(std::function<bool()> call);
  ~PipeCallThread();
  PipeCallThread(const PipeCallThread&) = delete;
  PipeCallThread& operator=(const PipeCallThread&) = delete;

  // Returns when the call is blocked in the system, as the system itself says, or has ended
  // already. Real pipes only; does not sleep.
  void waitUntilBlocked();
  bool ended() const { return ended_; }
  // How often the thread has gone to sleep so far, by the kernel's count. Call after
  // `waitUntilBlocked`. Linux only.
  std::uint64_t sleeps() const;
  // Waits for the end of the call.
  PipeOutcome outcome();

 private:
  static int currentThread();  // as the system numbers it

  std::atomic<int> threadId_{0};
  std::atomic<bool> ended_{false};
  PipeOutcome outcome_;
  std::thread thread_;  // last: uses the members above
};

// A call that is blocked in the system, or has ended, once this object is constructed.
class BlockedPipeCall : public PipeCallThread {
 public:
  explicit BlockedPipeCall(std::function<bool()> call) : PipeCallThread(std::move(call)) {
    waitUntilBlocked();
  }
};

}  // namespace zelta::test
