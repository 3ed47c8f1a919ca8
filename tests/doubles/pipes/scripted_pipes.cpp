#include "tests/doubles/pipes/scripted_pipes.h"

#include <algorithm>
#include <utility>

#include "platform/process/error.h"

namespace zelta::test {

using platform::PipeHandleValue;
namespace error = platform::error;

void ScriptedPipes::fail(PipeCallKind kind, std::uint32_t error, unsigned from, unsigned count,
                         const std::string& name) {
  state_.lock()->failures.push_back({kind, error, from, count, name});
}

void ScriptedPipes::feed(const std::string& name, const std::vector<std::uint8_t>& bytes) {
  const auto state = state_.lock();
  std::deque<std::uint8_t>& fed = state->pipes[name].fed;
  fed.insert(fed.end(), bytes.begin(), bytes.end());
}

std::vector<PipeCall> ScriptedPipes::calls(PipeCallKind kind) const {
  const auto state = state_.lock();
  std::vector<PipeCall> found;
  std::copy_if(state->calls.begin(), state->calls.end(), std::back_inserter(found),
               [&](const PipeCall& call) { return call.kind == kind; });
  return found;
}

bool ScriptedPipes::waitForCall(PipeCallKind kind, const std::string& name) {
  return state_.lock().waitFor(kLimit, [&](const State& now) {
    return std::any_of(now.calls.begin(), now.calls.end(),
                       [&](const PipeCall& call) { return matches(call, kind, name); });
  });
}

bool ScriptedPipes::waitUntilBlocked(const std::string& name) {
  return state_.lock().waitFor(kLimit, [&](State& now) { return !now.pipes[name].waits.empty(); });
}

bool ScriptedPipes::convertSecurityDescriptor(const std::string& sddl,
                                              platform::SecurityDescriptor* out) {
  PipeCall call(PipeCallKind::kConvert);
  call.text = sddl;
  return run(std::move(call), [&](Access&) {
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
  run(std::move(call), [&](Access& state) {
    handle = reinterpret_cast<PipeHandleValue>(state->nextHandle++);
    state->calls.back().pipe = handle;
    state->handles[handle] = name;
    return error::kSuccess;
  });
  return handle;
}

bool ScriptedPipes::connect(PipeHandleValue pipe) {
  return run({PipeCallKind::kConnect, pipe}, [pipe](Access& state) {
    Pipe& end = state->pipeOf(pipe);
    if (!end.held) return error::kSuccess;
    const std::uint32_t error = block(end, state, [&] { return end.permits > 0; });
    if (error == error::kSuccess) --end.permits;
    return error;
  });
}

bool ScriptedPipes::disconnect(PipeHandleValue pipe) {
  return run({PipeCallKind::kDisconnect, pipe}, [pipe](Access& state) {
    endWaits(state->pipeOf(pipe), error::kBrokenPipe);
    return error::kSuccess;
  });
}

bool ScriptedPipes::cancel(PipeHandleValue pipe) {
  return run({PipeCallKind::kCancel, pipe}, [pipe](Access& state) {
    const bool ended = endWaits(state->pipeOf(pipe), error::kOperationAborted);
    return ended ? error::kSuccess : error::kNotFound;
  });
}

bool ScriptedPipes::read(PipeHandleValue pipe, void* data, std::uint32_t size) {
  return run({PipeCallKind::kRead, pipe, size}, [=](Access& state) {
    Pipe& end = state->pipeOf(pipe);
    std::deque<std::uint8_t>& fed = end.fed;
    const std::uint32_t error = block(end, state, [&] { return fed.size() >= size || end.ended; });
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
  return run(std::move(call), [](Access&) { return error::kSuccess; });
}

bool ScriptedPipes::flush(PipeHandleValue pipe) {
  return run({PipeCallKind::kFlush, pipe}, [](Access&) { return error::kSuccess; });
}

bool ScriptedPipes::close(PipeHandleValue pipe) {
  return run({PipeCallKind::kClose, pipe}, [pipe](Access& state) {
    endWaits(state->pipeOf(pipe), error::kBrokenPipe);
    state->handles.erase(pipe);
    return error::kSuccess;
  });
}

template <typename Body>
bool ScriptedPipes::run(PipeCall call, Body body) {
  auto state = state_.lock();
  std::uint32_t error = error::kSuccess;
  if (call.kind != PipeCallKind::kConvert && call.kind != PipeCallKind::kCreate) {
    const auto found = state->handles.find(call.pipe);
    if (found == state->handles.end()) error = error::kInvalidHandle;
    if (found != state->handles.end()) call.text = found->second;
  }
  state->calls.push_back(std::move(call));
  if (const std::uint32_t scripted = state->scriptedError(state->calls.back())) error = scripted;
  if (error == error::kSuccess) error = body(state);
  if (error != error::kSuccess) platform::setLastError(error);
  return error == error::kSuccess;
}

std::uint32_t ScriptedPipes::State::scriptedError(const PipeCall& call) const {
  for (const Failure& failure : failures) {
    if (!matches(call, failure.kind, failure.name)) continue;
    const auto number = std::count_if(calls.begin(), calls.end(), [&](const PipeCall& other) {
      return matches(other, failure.kind, failure.name);
    });
    if (number >= failure.from && number - failure.from < failure.count) return failure.error;
  }
  return error::kSuccess;
}

template <typename Ready>
std::uint32_t ScriptedPipes::block(Pipe& pipe, Access& state, Ready ready) {
  Wait wait;
  pipe.waits.push_back(&wait);
  state.wait([&](const State&) { return wait.endedBy != error::kSuccess || ready(); });
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
  return any;
}

bool ScriptedPipes::matches(const PipeCall& call, PipeCallKind kind, const std::string& name) {
  return call.kind == kind && (name.empty() || call.text == name);
}

}  // namespace zelta::test
