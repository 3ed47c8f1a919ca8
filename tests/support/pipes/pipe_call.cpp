#include "tests/support/pipes/pipe_call.h"

#include <ostream>
#include <utility>

#include "platform/process/error.h"

namespace zelta::test {

void PrintTo(const PipeOutcome& outcome, std::ostream* stream) {
  if (outcome.ok) {
    *stream << "success";
  } else {
    *stream << "error " << outcome.error;
  }
}

PipeOutcome outcomeOf(const std::function<bool()>& call) {
  PipeOutcome outcome;
  outcome.ok = call();
  outcome.error = outcome.ok ? 0 : platform::lastError();
  return outcome;
}

PipeCallThread::PipeCallThread(std::function<bool()> call)
    : thread_([this, call = std::move(call)] {
        threadId_ = currentThread();
        outcome_ = outcomeOf(call);
        ended_ = true;
      }) {}

PipeCallThread::~PipeCallThread() {
  if (thread_.joinable()) thread_.join();
}

PipeOutcome PipeCallThread::outcome() {
  if (thread_.joinable()) thread_.join();
  return outcome_;
}

}  // namespace zelta::test
