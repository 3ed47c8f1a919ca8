#include "tests/doubles/pipes/gap_pipes.h"

#include "platform/process/error.h"

namespace zelta::test {

using platform::PipeHandleValue;

namespace {

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

void GapPipes::holdNext(Call call, const std::string& nameEnd) {
  const auto state = state_.lock();
  state->hold = call;
  state->holdName = nameEnd;
}

bool GapPipes::waitForMissedCancels(const std::string& nameEnd, std::size_t count) {
  return state_.lock().waitFor(kLimit, [&](const State& now) {
    for (const auto& [name, missed] : now.missed) {
      if (endsWith(name, nameEnd) && missed >= count) return true;
    }
    return false;
  });
}

PipeHandleValue GapPipes::handle(const std::string& name) {
  const auto state = state_.lock();
  for (const auto& [pipe, itsName] : state->names) {
    if (itsName == name) return pipe;
  }
  return platform::noPipe();
}

void GapPipes::passGap(Call call, PipeHandleValue pipe) {
  auto state = state_.lock();
  if (call != state->hold || !endsWith(state->names[pipe], state->holdName)) return;
  state->hold = Call::kNone;
  state->held = true;
  state.wait([](const State& now) { return !now.held; });
}

PipeHandleValue GapPipes::create(const std::string& name,
                                 const platform::PipeArguments& arguments) {
  const PipeHandleValue pipe = ForwardingPipes::create(name, arguments);
  if (pipe != platform::invalidPipe()) state_.lock()->names[pipe] = name;
  return pipe;
}

bool GapPipes::connect(PipeHandleValue pipe) {
  passGap(Call::kConnect, pipe);
  return ForwardingPipes::connect(pipe);
}

bool GapPipes::disconnect(PipeHandleValue pipe) {
  passGap(Call::kDisconnect, pipe);
  return ForwardingPipes::disconnect(pipe);
}

bool GapPipes::cancel(PipeHandleValue pipe) {
  passGap(Call::kCancel, pipe);
  if (ForwardingPipes::cancel(pipe)) return true;
  const std::uint32_t error = platform::lastError();
  {
    const auto state = state_.lock();
    ++state->missed[state->names[pipe]];
  }
  platform::setLastError(error);
  return false;
}

bool GapPipes::read(PipeHandleValue pipe, void* data, std::uint32_t size) {
  passGap(Call::kRead, pipe);
  return ForwardingPipes::read(pipe, data, size);
}

bool GapPipes::write(PipeHandleValue pipe, const void* data, std::uint32_t size) {
  passGap(Call::kWrite, pipe);
  return ForwardingPipes::write(pipe, data, size);
}

}  // namespace zelta::test
