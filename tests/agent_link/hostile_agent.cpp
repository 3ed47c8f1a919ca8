#include "tests/agent_link/hostile_agent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "agent_link/pipe_reader.h"
#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "platform/process/error.h"
#include "tests/doubles/pipes/forwarding_pipes.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/support/log_capture.h"
#include "tests/support/numbers.h"

namespace zelta::test {

namespace {

using platform::MutexLock;
using platform::PipeHandleValue;

bool fail(std::uint32_t error) {
  platform::setLastError(error);
  return false;
}

// One connection: every write succeeds, reads take what the agent has sent.
class HostilePipes final : public platform::PipeApi {
 public:
  HostilePipes(Bytes event, Bytes command) {
    ends_[kEvent].sent = std::move(event);
    ends_[kCommand].sent = std::move(command);
  }

  // Until the reader has dropped the agent because its event pipe broke.
  bool waitUntilDropped() {
    MutexLock lock(mutex_);
    return changed_.waitFor(
        lock, std::chrono::seconds(30),
        [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return ends_[kCommand].dropped; });
  }

  bool convertSecurityDescriptor(const std::string&, platform::SecurityDescriptor* out) override {
    *out = this;
    return true;
  }
  PipeHandleValue create(const std::string& name, const platform::PipeArguments&) override {
    const bool event = name.find("event") != std::string::npos;
    return reinterpret_cast<PipeHandleValue>(
        static_cast<std::uintptr_t>(event ? kEvent : kCommand));
  }
  // The first succeeds; there is no second agent.
  bool connect(PipeHandleValue pipe) override {
    MutexLock lock(mutex_);
    End& end = endOf(pipe);
    if (!end.connected) return end.connected = true;
    const unsigned before = end.cancels;
    end.waits = true;
    changed_.wait(lock, [&]() { return end.cancels != before; });
    end.waits = false;
    return fail(platform::error::kOperationAborted);
  }
  bool disconnect(PipeHandleValue pipe) override {
    const MutexLock lock(mutex_);
    endOf(pipe).dropped = true;
    changed_.notifyAll();
    return true;
  }
  bool cancel(PipeHandleValue pipe) override {
    const MutexLock lock(mutex_);
    End& end = endOf(pipe);
    if (!end.waits) return fail(platform::error::kNotFound);
    ++end.cancels;
    changed_.notifyAll();
    return true;
  }
  bool read(PipeHandleValue pipe, void* data, std::uint32_t size) override {
    const MutexLock lock(mutex_);
    End& end = endOf(pipe);
    if (!end.connected) return fail(platform::error::kPipeListening);
    const std::size_t left = end.sent.size() - end.taken;
    const std::size_t count = std::min<std::size_t>(left, size);
    if (count != 0) std::memcpy(data, end.sent.data() + end.taken, count);
    end.taken += count;
    return count == size || fail(platform::error::kBrokenPipe);
  }
  bool write(PipeHandleValue pipe, const void*, std::uint32_t) override {
    const MutexLock lock(mutex_);
    return endOf(pipe).connected || fail(platform::error::kPipeListening);
  }
  bool flush(PipeHandleValue) override { return true; }
  bool close(PipeHandleValue) override { return true; }

 private:
  enum Index : std::size_t { kCommand = 1, kEvent = 2, kEnds };
  struct End {
    Bytes sent;
    std::size_t taken = 0;
    bool connected = false;
    bool dropped = false;
    bool waits = false;
    unsigned cancels = 0;
  };

  End& endOf(PipeHandleValue pipe) ZELTA_REQUIRES(mutex_) {
    return ends_[reinterpret_cast<std::uintptr_t>(pipe)];
  }

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  End ends_[kEnds];
};

// Every handler that asks the agent, on what is left of its bytes.
void ask(PipeReader& reader, FakeReaderDevice& device) {
  std::vector<std::unique_ptr<FakeRequest>> requests;
  const auto handle = [&](void (Reader::*handler)(IoRequest*, std::size_t, std::size_t),
                          const Bytes& input) {
    requests.push_back(std::make_unique<FakeRequest>(device));
    requests.back()->withInput(input).withOutput(4096);
    (reader.*handler)(requests.back().get(), input.size(), 4096);
  };
  handle(&Reader::IoSmartCardPower, number(SCARD_COLD_RESET));
  handle(&Reader::IoSmartCardTransmit, number(0, number(kTransmitHeaderSize, {0, 0xA4, 4, 0})));
  handle(&Reader::IoSmartCardGetAttribute, number(SCARD_ATTR_ATR_STRING));
  handle(&Reader::IoSmartCardSetProtocol, number(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1));
  handle(&Reader::IoSmartCardIsPresent, {});
  reader.shutdown();
  for (const auto& request : requests) EXPECT_TRUE(request->completed());
}

}  // namespace

void playHostileAgent(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return;
  const std::size_t announced = data[0] | std::size_t{data[1]} << 8;
  const std::size_t events = std::min(announced, size - 2);
  const std::uint8_t* const command = data + 2 + events;
  HostilePipes pipes(Bytes(data + 2, command), Bytes(command, data + size));
  const ScopedPipes scoped(pipes);
  const LogCapture log;
  FakeReaderDevice device;
  FakeRequest insertion(device);
  PipeReader reader(0, &device);
  device.onCancel = [&reader](IoRequest& request) { reader.IoCancelRequest(&request); };
  // Queued, as there is no agent yet, and so lets it in.
  reader.IoSmartCardIsPresent(&insertion, 0, 0);
  EXPECT_TRUE(pipes.waitUntilDropped()) << "the agent was not dropped";
  ask(reader, device);
  EXPECT_TRUE(insertion.completed());
}

}  // namespace zelta::test
