#include "tests/doubles/pipes/gap_pipes.h"

#include <chrono>

#include "platform/process/error.h"

namespace zelta::test {

using platform::MutexLock;
using platform::PipeHandleValue;

namespace {

constexpr std::chrono::seconds kLimit{30};

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

void GapPipes::holdNext(Call call, const std::string& nameEnd) {
  const MutexLock lock(mutex_);
  hold_ = call;
  holdName_ = nameEnd;
}

bool GapPipes::waitUntilHeld() {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return held_; });
}

void GapPipes::letGo() {
  const MutexLock lock(mutex_);
  held_ = false;
  changed_.notifyAll();
}

bool GapPipes::waitForMissedCancels(const std::string& nameEnd, std::size_t count) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    for (const auto& [name, missed] : missed_) {
      if (endsWith(name, nameEnd) && missed >= count) return true;
    }
    return false;
  });
}

PipeHandleValue GapPipes::handle(const std::string& name) {
  const MutexLock lock(mutex_);
  for (const auto& [pipe, itsName] : names_) {
    if (itsName == name) return pipe;
  }
  return platform::noPipe();
}

void GapPipes::passGap(Call call, PipeHandleValue pipe) {
  MutexLock lock(mutex_);
  if (call != hold_ || !endsWith(nameOf(pipe), holdName_)) return;
  hold_ = Call::kNone;
  held_ = true;
  changed_.notifyAll();
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !held_; });
}

std::string GapPipes::nameOf(PipeHandleValue pipe) const {
  const auto found = names_.find(pipe);
  return found == names_.end() ? std::string() : found->second;
}

PipeHandleValue GapPipes::create(const std::string& name,
                                 const platform::PipeArguments& arguments) {
  const PipeHandleValue pipe = ForwardingPipes::create(name, arguments);
  const MutexLock lock(mutex_);
  if (pipe != platform::invalidPipe()) names_[pipe] = name;
  return pipe;
}

bool GapPipes::connect(PipeHandleValue pipe) {
  passGap(Call::kConnect, pipe);
  return ForwardingPipes::connect(pipe);
}

bool GapPipes::cancel(PipeHandleValue pipe) {
  if (ForwardingPipes::cancel(pipe)) return true;
  const std::uint32_t error = platform::lastError();
  {
    const MutexLock lock(mutex_);
    ++missed_[nameOf(pipe)];
    changed_.notifyAll();
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

bool GapPipes::flush(PipeHandleValue pipe) {
  passGap(Call::kFlush, pipe);
  return ForwardingPipes::flush(pipe);
}

}  // namespace zelta::test
