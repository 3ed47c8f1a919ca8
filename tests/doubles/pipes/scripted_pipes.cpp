#include "tests/doubles/pipes/scripted_pipes.h"

#include <algorithm>
#include <utility>

#include "platform/process/error.h"

namespace zelta::test {

using platform::MutexLock;
using platform::PipeHandleValue;
namespace error = platform::error;

void ScriptedPipes::fail(PipeCallKind kind, std::uint32_t error, unsigned from, unsigned count,
                         const std::string& name) {
  const MutexLock lock(mutex_);
  failures_.push_back({kind, error, from, count, name});
}

void ScriptedPipes::feed(const std::string& name, const std::vector<std::uint8_t>& bytes) {
  MutexLock lock(mutex_);
  std::deque<std::uint8_t>& fed = pipes_[name].fed;
  fed.insert(fed.end(), bytes.begin(), bytes.end());
  changed_.notifyAll();
}

void ScriptedPipes::endFeed(const std::string& name) {
  MutexLock lock(mutex_);
  pipes_[name].ended = true;
}

void ScriptedPipes::holdConnect(const std::string& name) {
  MutexLock lock(mutex_);
  pipes_[name].held = true;
}

void ScriptedPipes::letConnect(const std::string& name) {
  MutexLock lock(mutex_);
  ++pipes_[name].permits;
  changed_.notifyAll();
}

std::vector<PipeCall> ScriptedPipes::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::vector<PipeCall> ScriptedPipes::calls(PipeCallKind kind) const {
  MutexLock lock(mutex_);
  std::vector<PipeCall> found;
  std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(found),
               [&](const PipeCall& call) { return call.kind == kind; });
  return found;
}

bool ScriptedPipes::waitForCall(PipeCallKind kind, const std::string& name) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return std::any_of(calls_.begin(), calls_.end(),
                       [&](const PipeCall& call) { return matches(call, kind, name); });
  });
}

bool ScriptedPipes::waitUntilBlocked(const std::string& name) {
  MutexLock lock(mutex_);
  return changed_.waitFor(
      lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !pipes_[name].waits.empty(); });
}

bool ScriptedPipes::convertSecurityDescriptor(const std::string& sddl,
                                              platform::SecurityDescriptor* out) {
  PipeCall call(PipeCallKind::kConvert);
  call.text = sddl;
  return run(std::move(call), [&](MutexLock&, PipeCall&) {
    *out = &descriptor_;
    return error::kSuccess;
  });
}

PipeHandleValue ScriptedPipes::create(const std::string& name,
                                      const platform::PipeArguments& arguments) {
  PipeCall call(PipeCallKind::kCreate, platform::invalidPipe());
  call.text = name;
  call.arguments = arguments;
  PipeHandleValue handle = platform::invalidPipe();
  run(std::move(call), [&](MutexLock&, PipeCall& recorded) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    recorded.pipe = handle = reinterpret_cast<PipeHandleValue>(nextHandle_++);
    handles_[handle] = name;
    return error::kSuccess;
  });
  return handle;
}

bool ScriptedPipes::connect(PipeHandleValue pipe) {
  return run({PipeCallKind::kConnect, pipe},
             [&](MutexLock& lock, PipeCall&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
               Pipe& state = pipeOf(pipe);
               if (!state.held) return error::kSuccess;
               const std::uint32_t error = block(state, lock, [&] { return state.permits > 0; });
               if (error == error::kSuccess) --state.permits;
               return error;
             });
}

bool ScriptedPipes::disconnect(PipeHandleValue pipe) {
  return run({PipeCallKind::kDisconnect, pipe},
             [&](MutexLock&, PipeCall&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
               endWaits(pipeOf(pipe), error::kBrokenPipe);
               return error::kSuccess;
             });
}

bool ScriptedPipes::cancel(PipeHandleValue pipe) {
  return run({PipeCallKind::kCancel, pipe}, [&](MutexLock&,
                                                PipeCall&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return endWaits(pipeOf(pipe), error::kOperationAborted) ? error::kSuccess : error::kNotFound;
  });
}

bool ScriptedPipes::read(PipeHandleValue pipe, void* data, std::uint32_t size) {
  return run({PipeCallKind::kRead, pipe, size},
             [&](MutexLock& lock, PipeCall&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
               Pipe& state = pipeOf(pipe);
               std::deque<std::uint8_t>& fed = state.fed;
               const std::uint32_t error =
                   block(state, lock, [&] { return fed.size() >= size || state.ended; });
               if (error != error::kSuccess) return error;
               if (fed.size() < size) {
                 fed.clear();
                 return error::kBrokenPipe;
               }
               std::copy_n(fed.begin(), size, static_cast<std::uint8_t*>(data));
               fed.erase(fed.begin(), fed.begin() + size);
               return error::kSuccess;
             });
}

bool ScriptedPipes::write(PipeHandleValue pipe, const void* data, std::uint32_t size) {
  PipeCall call(PipeCallKind::kWrite, pipe, size);
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  call.data.assign(bytes, bytes + size);
  return run(std::move(call), [](MutexLock&, PipeCall&) { return error::kSuccess; });
}

bool ScriptedPipes::flush(PipeHandleValue pipe) {
  return run({PipeCallKind::kFlush, pipe}, [](MutexLock&, PipeCall&) { return error::kSuccess; });
}

bool ScriptedPipes::close(PipeHandleValue pipe) {
  return run({PipeCallKind::kClose, pipe},
             [&](MutexLock&, PipeCall&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
               endWaits(pipeOf(pipe), error::kBrokenPipe);
               handles_.erase(pipe);
               return error::kSuccess;
             });
}

template <typename Body>
bool ScriptedPipes::run(PipeCall call, Body body) {
  MutexLock lock(mutex_);
  std::uint32_t error = error::kSuccess;
  if (call.kind != PipeCallKind::kConvert && call.kind != PipeCallKind::kCreate) {
    const auto found = handles_.find(call.pipe);
    if (found == handles_.end()) error = error::kInvalidHandle;
    if (found != handles_.end()) call.text = found->second;
  }
  const std::size_t number = calls_.size();
  calls_.push_back(std::move(call));
  if (const std::uint32_t scripted = scriptedError(calls_.back())) error = scripted;
  changed_.notifyAll();
  if (error == error::kSuccess) error = body(lock, calls_[number]);
  if (error != error::kSuccess) platform::setLastError(error);
  changed_.notifyAll();
  return error == error::kSuccess;
}

// The call has been recorded.
std::uint32_t ScriptedPipes::scriptedError(const PipeCall& call) {
  for (const Failure& failure : failures_) {
    if (!matches(call, failure.kind, failure.name)) continue;
    const auto number = std::count_if(calls_.begin(), calls_.end(), [&](const PipeCall& other) {
      return matches(other, failure.kind, failure.name);
    });
    if (number >= failure.from && number - failure.from < failure.count) return failure.error;
  }
  return error::kSuccess;
}

template <typename Ready>
std::uint32_t ScriptedPipes::block(Pipe& pipe, MutexLock& lock, Ready ready) {
  Wait wait;
  pipe.waits.push_back(&wait);
  changed_.notifyAll();
  changed_.wait(lock, [&] { return wait.endedBy != error::kSuccess || ready(); });
  pipe.waits.erase(std::find(pipe.waits.begin(), pipe.waits.end(), &wait));
  return wait.endedBy;
}

bool ScriptedPipes::endWaits(Pipe& pipe, std::uint32_t error) {
  bool any = false;
  for (Wait* wait : pipe.waits) {
    if (wait->endedBy != error::kSuccess) continue;
    wait->endedBy = error;
    any = true;
  }
  changed_.notifyAll();
  return any;
}

ScriptedPipes::Pipe& ScriptedPipes::pipeOf(PipeHandleValue pipe) { return pipes_[handles_[pipe]]; }

bool ScriptedPipes::matches(const PipeCall& call, PipeCallKind kind, const std::string& name) {
  return call.kind == kind && (name.empty() || call.text == name);
}

}  // namespace zelta::test
