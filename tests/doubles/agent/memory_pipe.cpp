#include "tests/doubles/agent/memory_pipe.h"

#include <algorithm>
#include <utility>

#include "contract/bytes.h"

namespace zelta::test {

using agent::IoResult;

void MemoryPipe::give(const Bytes& bytes) {
  const auto state = state_.lock();
  state->given.insert(state->given.end(), bytes.begin(), bytes.end());
}

std::vector<Bytes> MemoryPipe::takeWrites(std::size_t count) {
  auto state = state_.lock();
  state.wait([count](const State& now) { return now.written.size() >= count; });
  return state->written;
}

IoResult MemoryPipe::read(void* data, std::uint32_t size,
                          std::optional<agent::SteadyClock::time_point> deadline) {
  auto state = state_.lock();
  const bool inTime = waitUntil(state, deadline, [size](const State& now) {
    return now.given.size() >= size || now.cancelled;
  });
  if (state->cancelled) return IoResult::kCancelled;
  if (!inTime) return IoResult::kTimedOut;
  Bytes& given = state->given;
  std::copy_n(given.begin(), size, static_cast<std::uint8_t*>(data));
  given.erase(given.begin(), given.begin() + static_cast<std::ptrdiff_t>(size));
  return IoResult::kDone;
}

IoResult MemoryPipe::awaitCommand() {
  auto state = state_.lock();
  state.wait([](const State& now) { return !now.given.empty() || now.cancelled; });
  return state->cancelled ? IoResult::kCancelled : IoResult::kDone;
}

IoResult MemoryPipe::answer(const Bytes& bytes, agent::SteadyClock::time_point deadline) {
  const auto length = toLittleEndian(static_cast<std::uint32_t>(bytes.size()));
  Bytes written(length.begin(), length.end());
  written.insert(written.end(), bytes.begin(), bytes.end());
  return write(std::move(written), deadline, true);
}

IoResult MemoryPipe::post(const void* data, std::uint32_t size,
                          std::optional<agent::SteadyClock::time_point> deadline) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  return write(Bytes(bytes, bytes + size), deadline, false);
}

bool MemoryPipe::tryPost(const void* data, std::uint32_t size) {
  {
    const auto state = state_.lock();
    if (state->refusedTries > 0) return --state->refusedTries, false;
  }
  return post(data, size, agent::SteadyClock::now()) == IoResult::kDone;
}

IoResult MemoryPipe::write(Bytes bytes, std::optional<agent::SteadyClock::time_point> deadline,
                           bool isAnswer) {
  auto state = state_.lock();
  state->writing = true;
  const bool inTime = waitUntil(state, deadline, [isAnswer](const State& now) {
    return !now.held || now.cancelled || (isAnswer && !now.given.empty());
  });
  state->writing = false;
  if (state->cancelled) return IoResult::kCancelled;
  if (isAnswer && !state->given.empty()) return IoResult::kGivenUp;
  if (!inTime) return IoResult::kTimedOut;
  state->written.push_back(std::move(bytes));
  return IoResult::kDone;
}

IoResult MemoryPipe::flush() {
  auto state = state_.lock();
  state.wait([](const State& now) { return !now.held || now.cancelled; });
  return state->cancelled ? IoResult::kCancelled : IoResult::kDone;
}

bool MemoryPipe::waitUntil(Shared<State>::Access& state,
                           std::optional<agent::SteadyClock::time_point> deadline,
                           const std::function<bool(const State&)>& ready) {
  if (deadline) return state.waitFor(*deadline - agent::SteadyClock::now(), ready);
  state.wait(ready);
  return true;
}

}  // namespace zelta::test
