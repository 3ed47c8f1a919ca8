#include "tests/doubles/agent/serialising_port.h"

#include <algorithm>
#include <thread>

#include "contract/bytes.h"

namespace zelta::test {

using agent::IoResult;
using agent::SteadyClock;
using Unread = SerialisingPipes::Unread;

class SerialisingPort::Connection final : public agent::PipeConnection {
 public:
  Connection(SerialisingPipes& pipes, SerialisingPipes::Client client, std::atomic<bool>& answering)
      : pipes_(pipes), client_(client), answering_(answering) {}
  ~Connection() override { pipes_.closeClient(client_); }

  IoResult awaitCommand() override {
    return wait([](const Unread& unread) { return unread.byClient > 0; });
  }

  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> /*deadline*/) override {
    Bytes bytes;
    while (bytes.size() < size) {
      const IoResult waited = awaitCommand();
      if (waited != IoResult::kDone) return waited;
      const Bytes byte = pipes_.clientRead(client_, 1);
      bytes.insert(bytes.end(), byte.begin(), byte.end());
    }
    std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(data));
    return IoResult::kDone;
  }

  IoResult answer(const Bytes& bytes, SteadyClock::time_point /*deadline*/) override {
    bool more = false;
    const IoResult before = wait([&](const Unread& unread) {
      more = unread.byClient > 0;
      return true;
    });
    if (before != IoResult::kDone || more) return more ? IoResult::kGivenUp : before;
    Bytes answer = numberBytes(static_cast<std::uint32_t>(bytes.size()));
    answer.insert(answer.end(), bytes.begin(), bytes.end());
    if (!pipes_.clientWrite(client_, answer)) return IoResult::kClosed;
    answering_ = true;
    const IoResult after = wait([&](const Unread& unread) {
      more = unread.byClient > 0 && unread.byDriver > 0;
      return more || unread.byDriver == 0;
    });
    answering_ = false;
    if (after == IoResult::kDone && !more) return after;
    pipes_.takeBack(client_);
    return more ? IoResult::kGivenUp : after;
  }

  IoResult post(const void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> /*deadline*/) override {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    return pipes_.clientWrite(client_, Bytes(bytes, bytes + size)) ? IoResult::kDone
                                                                   : IoResult::kClosed;
  }

  IoResult flush() override {
    return wait([](const Unread& unread) { return unread.byDriver == 0; });
  }

  void cancel() override {
    cancelled_ = true;
    pipes_.wakeClients();
  }

 private:
  template <typename Ready>
  IoResult wait(Ready ready) {
    const bool there = pipes_.waitForClient(
        client_, [&](const Unread& unread) { return cancelled_ || ready(unread); });
    if (!there) return IoResult::kClosed;
    return cancelled_ ? IoResult::kCancelled : IoResult::kDone;
  }

  SerialisingPipes& pipes_;
  const SerialisingPipes::Client client_;
  std::atomic<bool>& answering_;
  std::atomic<bool> cancelled_{false};
};

void SerialisingPort::waitUntilAnswering() {
  while (!answering_) std::this_thread::yield();
}

agent::OpenedPipe SerialisingPort::open(const std::string& pipeName) {
  const SerialisingPipes::Client client = pipes_.connectClient(pipeName);
  if (client == SerialisingPipes::kNoClient)
    return {agent::OpenResult::kRefused, nullptr, pipeName};
  return {agent::OpenResult::kOpened, std::make_unique<Connection>(pipes_, client, answering_),
          pipeName};
}

// What could have changed is not noted: the agent tries again and again.
void SerialisingPort::waitForChange(std::optional<std::chrono::milliseconds> /*limit*/) {
  if (!cancelled_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace zelta::test
