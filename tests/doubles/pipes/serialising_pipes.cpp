#include "tests/doubles/pipes/serialising_pipes.h"

#include <algorithm>

#include "platform/process/error.h"

namespace zelta::test {

using platform::MutexLock;
using platform::PipeHandleValue;
namespace error = platform::error;

namespace {

bool finish(std::uint32_t error) {
  if (error != error::kSuccess) platform::setLastError(error);
  return error == error::kSuccess;
}

std::vector<std::uint8_t> take(std::deque<std::uint8_t>& from, std::size_t size) {
  const auto end = from.begin() + static_cast<std::ptrdiff_t>(std::min(size, from.size()));
  std::vector<std::uint8_t> bytes(from.begin(), end);
  from.erase(from.begin(), end);
  return bytes;
}

}  // namespace

SerialisingPipes::Client SerialisingPipes::connectClient(const std::string& name) {
  const MutexLock lock(mutex_);
  const SharedPipe found = named(name);
  if (found == nullptr) {
    finish(error::kFileNotFound);
    return kNoClient;
  }
  Pipe& pipe = *found;
  if (pipe.state != State::kListening) {
    finish(error::kPipeBusy);
    return kNoClient;
  }
  pipe.state = State::kConnected;
  pipe.client = ++lastClient_;
  changed_.notifyAll();
  return pipe.client;
}

bool SerialisingPipes::clientWrite(Client client, const std::vector<std::uint8_t>& bytes) {
  const MutexLock lock(mutex_);
  const SharedPipe pipe = pipeOf(client);
  if (pipe == nullptr) return finish(error::kPipeNotConnected);
  pipe->in.insert(pipe->in.end(), bytes.begin(), bytes.end());
  changed_.notifyAll();
  return true;
}

std::vector<std::uint8_t> SerialisingPipes::clientRead(Client client, std::size_t size) {
  MutexLock lock(mutex_);
  std::vector<std::uint8_t> bytes;
  changed_.waitFor(lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    const SharedPipe pipe = pipeOf(client);
    if (pipe == nullptr) return true;
    const std::vector<std::uint8_t> more = take(pipe->out, size - bytes.size());
    bytes.insert(bytes.end(), more.begin(), more.end());
    if (!more.empty()) changed_.notifyAll();
    return bytes.size() == size;
  });
  return bytes;
}

bool SerialisingPipes::waitForDrop(Client client) {
  MutexLock lock(mutex_);
  return changed_.waitFor(
      lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return pipeOf(client) == nullptr; });
}

void SerialisingPipes::closeClient(Client client) {
  const MutexLock lock(mutex_);
  const SharedPipe pipe = pipeOf(client);
  if (pipe == nullptr) return;
  pipe->state = State::kClientGone;
  pipe->client = kNoClient;
  if (!pipe->out.empty()) pipe->in.clear();
  pipe->out.clear();
  changed_.notifyAll();
}

std::size_t SerialisingPipes::unread(Client client) {
  const MutexLock lock(mutex_);
  const SharedPipe pipe = pipeOf(client);
  return pipe == nullptr ? 0 : pipe->out.size();
}

bool SerialisingPipes::waitUntilQueued(PipeHandleValue pipe, std::size_t waiting) {
  return waitUntilQueuedOn([=]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return find(pipe); }, waiting);
}

bool SerialisingPipes::waitUntilQueued(const std::string& name, std::size_t waiting) {
  return waitUntilQueuedOn([&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return named(name); }, waiting);
}

template <typename Find>
bool SerialisingPipes::waitUntilQueuedOn(Find find, std::size_t waiting) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [&] {
    const SharedPipe found = find();
    return found != nullptr && found->blocked && found->turns.size() == waiting + 1;
  });
}

bool SerialisingPipes::convertSecurityDescriptor(const std::string& sddl,
                                                 platform::SecurityDescriptor* out) {
  if (sddl.empty()) return finish(error::kInvalidParameter);
  *out = &descriptor_;
  return true;
}

PipeHandleValue SerialisingPipes::create(const std::string& name, const platform::PipeArguments&) {
  const MutexLock lock(mutex_);
  if (named(name) != nullptr) {
    finish(error::kAccessDenied);
    return platform::invalidPipe();
  }
  const SharedPipe pipe = std::make_shared<Pipe>();
  pipe->name = name;
  const auto handle = reinterpret_cast<PipeHandleValue>(++lastHandle_);
  pipes_[handle] = pipe;
  return handle;
}

// A place in the handle's queue, from the call until it returns.
class SerialisingPipes::Turn {
 public:
  Turn(SerialisingPipes& pipes, Pipe& pipe, MutexLock& lock) ZELTA_REQUIRES(pipes.mutex_)
      : pipes_(pipes), pipe_(pipe) {
    const std::uint64_t turn = ++pipes.lastTurn_;
    pipe.turns.push_back(turn);
    pipes.changed_.notifyAll();
    pipes.changed_.wait(lock, [&] { return pipe.turns.front() == turn; });
  }
  ~Turn() {
    pipe_.turns.pop_front();
    pipes_.changed_.notifyAll();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  SerialisingPipes& pipes_;
  Pipe& pipe_;
};

template <typename Body>
bool SerialisingPipes::serve(PipeHandleValue pipe, Body body) {
  MutexLock lock(mutex_);
  const SharedPipe found = find(pipe);
  if (found == nullptr) return finish(error::kInvalidHandle);
  const Turn turn(*this, *found, lock);
  if (found->state == State::kClosed) return finish(error::kInvalidHandle);
  return finish(body(*found, lock));
}

bool SerialisingPipes::connect(PipeHandleValue pipe) {
  return serve(pipe, [this](Pipe& end, MutexLock& lock) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    if (end.state == State::kConnected) return error::kPipeConnected;
    if (end.state == State::kClientGone) return error::kNoData;
    end.state = State::kListening;
    return block(end, lock, [&] { return end.state != State::kListening; });
  });
}

bool SerialisingPipes::disconnect(PipeHandleValue pipe) {
  return serve(pipe, [this](Pipe& end, MutexLock&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    if (end.state == State::kDisconnected) return error::kPipeNotConnected;
    drop(end, State::kDisconnected);
    return error::kSuccess;
  });
}

bool SerialisingPipes::cancel(PipeHandleValue pipe) {
  const MutexLock lock(mutex_);
  const SharedPipe found = find(pipe);
  if (found == nullptr) return finish(error::kInvalidHandle);
  if (!found->blocked || found->cancelled) return finish(error::kNotFound);
  found->cancelled = true;
  changed_.notifyAll();
  return true;
}

bool SerialisingPipes::read(PipeHandleValue pipe, void* data, std::uint32_t size) {
  return serve(pipe, [&](Pipe& end, MutexLock& lock) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    const bool leftBytes = end.state == State::kClientGone && !end.in.empty();
    if (end.state != State::kConnected && !leftBytes) return noClientError(end, error::kBrokenPipe);
    const std::uint32_t error =
        block(end, lock, [&] { return end.in.size() >= size || end.state != State::kConnected; });
    if (error != error::kSuccess) return error;
    if (end.in.size() < size) {
      end.in.clear();
      return error::kBrokenPipe;
    }
    const std::vector<std::uint8_t> bytes = take(end.in, size);
    std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(data));
    return error::kSuccess;
  });
}

bool SerialisingPipes::write(PipeHandleValue pipe, const void* data, std::uint32_t size) {
  return serve(pipe, [&](Pipe& end, MutexLock& lock) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    if (end.state == State::kClientGone) end.in.clear();
    if (end.state != State::kConnected) return noClientError(end, error::kNoData);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    end.out.insert(end.out.end(), bytes, bytes + size);
    changed_.notifyAll();
    const std::uint32_t error =
        block(end, lock, [&] { return end.out.empty() || end.state != State::kConnected; });
    // Bytes of it that the client has not read are taken back.
    if (error != error::kSuccess) end.out.clear();
    if (error != error::kSuccess) return error;
    return end.state == State::kConnected ? error::kSuccess : error::kNoData;
  });
}

bool SerialisingPipes::flush(PipeHandleValue pipe) {
  return serve(pipe, [&](Pipe& end, MutexLock& lock) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    if (end.state != State::kConnected) return noClientError(end, error::kBrokenPipe);
    const std::uint32_t error =
        block(end, lock, [&] { return end.out.empty() || end.state != State::kConnected; });
    if (error != error::kSuccess) return error;
    return end.state == State::kConnected ? error::kSuccess : error::kBrokenPipe;
  });
}

bool SerialisingPipes::close(PipeHandleValue pipe) {
  return serve(pipe, [this, pipe](Pipe& end, MutexLock&) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    drop(end, State::kClosed);
    pipes_.erase(pipe);
    return error::kSuccess;
  });
}

SerialisingPipes::SharedPipe SerialisingPipes::find(PipeHandleValue pipe) {
  const auto found = pipes_.find(pipe);
  return found == pipes_.end() ? nullptr : found->second;
}

SerialisingPipes::SharedPipe SerialisingPipes::named(const std::string& name) {
  const auto found = std::find_if(pipes_.begin(), pipes_.end(),
                                  [&](const auto& entry) { return entry.second->name == name; });
  return found == pipes_.end() ? nullptr : found->second;
}

SerialisingPipes::SharedPipe SerialisingPipes::pipeOf(Client client) {
  if (client == kNoClient) return nullptr;
  for (const auto& entry : pipes_) {
    if (entry.second->client == client) return entry.second;
  }
  return nullptr;
}

// For the operation being served. An operation that need not wait is not cancelled.
template <typename Ready>
std::uint32_t SerialisingPipes::block(Pipe& pipe, MutexLock& lock, Ready ready) {
  if (ready()) return error::kSuccess;
  pipe.blocked = true;
  pipe.cancelled = false;
  changed_.notifyAll();
  changed_.wait(lock, [&] { return pipe.cancelled || ready(); });
  pipe.blocked = false;
  return ready() ? error::kSuccess : error::kOperationAborted;
}

void SerialisingPipes::drop(Pipe& pipe, State next) {
  pipe.state = next;
  pipe.client = kNoClient;
  pipe.in.clear();
  pipe.out.clear();
  changed_.notifyAll();
}

std::uint32_t SerialisingPipes::noClientError(const Pipe& pipe, std::uint32_t whenGone) {
  if (pipe.state == State::kListening) return error::kPipeListening;
  if (pipe.state == State::kDisconnected) return error::kPipeNotConnected;
  return pipe.state == State::kClientGone ? whenGone : error::kInvalidHandle;
}

}  // namespace zelta::test
