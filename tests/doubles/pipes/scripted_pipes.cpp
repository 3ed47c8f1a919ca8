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
  MutexLock lock(mutex_);
  failures_.push_back({kind, error, from, count, name});
}

void ScriptedPipes::feed(const std::string& name, const std::vector<std::uint8_t>& bytes) {
  MutexLock lock(mutex_);
  std::deque<std::uint8_t>& fed = pipes_[name].fed;
  fed.insert(fed.end(), bytes.begin(), bytes.end());
  changed_.notifyAll();
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

bool ScriptedPipes::waitForCalls(PipeCallKind kind, std::size_t count) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    const auto entered = std::count_if(calls_.begin(), calls_.end(),
                                       [&](const PipeCall& call) { return call.kind == kind; });
    return static_cast<std::size_t>(entered) >= count;
  });
}

bool ScriptedPipes::waitUntilBlocked(const std::string& name) {
  MutexLock lock(mutex_);
  return changed_.waitFor(
      lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !pipes_[name].waits.empty(); });
}

PipeHandleValue ScriptedPipes::handle(const std::string& name) const {
  MutexLock lock(mutex_);
  for (const auto& known : handles_) {
    if (known.second == name) return known.first;
  }
  return platform::noPipe();
}

bool ScriptedPipes::convertSecurityDescriptor(const std::string& sddl,
                                              platform::SecurityDescriptor* out) {
  MutexLock lock(mutex_);
  PipeCall call;
  call.kind = PipeCallKind::kConvert;
  call.text = sddl;
  std::uint32_t error = error::kSuccess;
  const std::size_t number = enter(std::move(call), &error);
  if (error == error::kSuccess) *out = &descriptor_;
  return leave(number, error);
}

PipeHandleValue ScriptedPipes::create(const std::string& name,
                                      const platform::PipeArguments& arguments) {
  MutexLock lock(mutex_);
  PipeCall call;
  call.kind = PipeCallKind::kCreate;
  call.text = name;
  call.arguments = arguments;
  std::uint32_t error = error::kSuccess;
  const std::size_t number = enter(std::move(call), &error);
  PipeHandleValue handle = platform::invalidPipe();
  if (error == error::kSuccess) {
    handle = reinterpret_cast<PipeHandleValue>(nextHandle_++);
    handles_[handle] = name;
  }
  calls_[number].pipe = handle;
  leave(number, error);
  return handle;
}

bool ScriptedPipes::connect(PipeHandleValue pipe) {
  MutexLock lock(mutex_);
  PipeCall call;
  call.kind = PipeCallKind::kConnect;
  call.pipe = pipe;
  std::uint32_t error = error::kSuccess;
  const std::size_t number = enter(std::move(call), &error);
  if (error == error::kSuccess && pipeOf(pipe).held) {
    Pipe& state = pipeOf(pipe);
    error = block(state, lock, [&] { return state.permits > 0; });
    if (error == error::kSuccess) --state.permits;
  }
  return leave(number, error);
}

bool ScriptedPipes::disconnect(PipeHandleValue pipe) {
  return plainCall(PipeCallKind::kDisconnect, pipe);
}

bool ScriptedPipes::cancel(PipeHandleValue pipe) { return plainCall(PipeCallKind::kCancel, pipe); }

bool ScriptedPipes::read(PipeHandleValue pipe, void* data, std::uint32_t size) {
  MutexLock lock(mutex_);
  PipeCall call;
  call.kind = PipeCallKind::kRead;
  call.pipe = pipe;
  call.size = size;
  std::uint32_t error = error::kSuccess;
  const std::size_t number = enter(std::move(call), &error);
  if (error == error::kSuccess) {
    Pipe& state = pipeOf(pipe);
    error = block(state, lock, [&] { return state.fed.size() >= size; });
    if (error == error::kSuccess) {
      const auto end = state.fed.begin() + size;
      std::copy(state.fed.begin(), end, static_cast<std::uint8_t*>(data));
      state.fed.erase(state.fed.begin(), end);
    }
  }
  return leave(number, error);
}

bool ScriptedPipes::write(PipeHandleValue pipe, const void* data, std::uint32_t size) {
  MutexLock lock(mutex_);
  PipeCall call;
  call.kind = PipeCallKind::kWrite;
  call.pipe = pipe;
  call.size = size;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  call.data.assign(bytes, bytes + size);
  std::uint32_t error = error::kSuccess;
  const std::size_t number = enter(std::move(call), &error);
  return leave(number, error);
}

bool ScriptedPipes::flush(PipeHandleValue pipe) { return plainCall(PipeCallKind::kFlush, pipe); }

bool ScriptedPipes::close(PipeHandleValue pipe) { return plainCall(PipeCallKind::kClose, pipe); }

bool ScriptedPipes::plainCall(PipeCallKind kind, PipeHandleValue pipe) {
  MutexLock lock(mutex_);
  PipeCall call;
  call.kind = kind;
  call.pipe = pipe;
  std::uint32_t error = error::kSuccess;
  const std::size_t number = enter(std::move(call), &error);
  if (error == error::kSuccess) {
    Pipe& state = pipeOf(pipe);
    if (kind == PipeCallKind::kCancel) {
      if (!endWaits(state, error::kOperationAborted)) error = error::kNotFound;
    } else if (kind == PipeCallKind::kDisconnect || kind == PipeCallKind::kClose) {
      endWaits(state, error::kBrokenPipe);
    }
    if (kind == PipeCallKind::kClose) handles_.erase(pipe);
  }
  return leave(number, error);
}

std::size_t ScriptedPipes::enter(PipeCall call, std::uint32_t* error) {
  if (call.kind != PipeCallKind::kConvert && call.kind != PipeCallKind::kCreate) {
    const auto found = handles_.find(call.pipe);
    if (found == handles_.end()) *error = error::kInvalidHandle;
    if (found != handles_.end()) call.text = found->second;
  }
  call.error = PipeCall::kRunning;
  calls_.push_back(std::move(call));
  if (const std::uint32_t scripted = scriptedError(calls_.back())) *error = scripted;
  changed_.notifyAll();
  return calls_.size() - 1;
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

bool ScriptedPipes::leave(std::size_t number, std::uint32_t error) {
  calls_[number].error = error;
  if (error != error::kSuccess) platform::setLastError(error);
  changed_.notifyAll();
  return error == error::kSuccess;
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
