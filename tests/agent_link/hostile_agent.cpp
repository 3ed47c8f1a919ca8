#include "tests/agent_link/hostile_agent.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "agent_link/pipe_reader.h"
#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "platform/process/error.h"
#include "platform/process/ports.h"
#include "tests/doubles/request/link_requests.h"
#include "tests/support/log_capture.h"

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
    return changed_.waitFor(lock, LinkRequest::kLimit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
      return ends_[kCommand].dropped;
    });
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

// The system's pipes are put back at the end.
class PipesForNow {
 public:
  explicit PipesForNow(platform::PipeApi& pipes) : before_(platform::ports()) {
    platform::Ports ports = before_;
    ports.pipes = &pipes;
    platform::replacePorts(ports);
  }
  ~PipesForNow() { platform::replacePorts(before_); }
  PipesForNow(const PipesForNow&) = delete;
  PipesForNow& operator=(const PipesForNow&) = delete;

 private:
  const platform::Ports before_;
};

Bytes inputOf(std::uint32_t first, std::uint32_t second) {
  Bytes bytes(8);
  std::memcpy(bytes.data(), &first, 4);
  std::memcpy(bytes.data() + 4, &second, 4);
  return bytes;
}

// Every handler that asks the agent, on what is left of its bytes.
std::string ask(PipeReader& reader, LinkDevice& device) {
  LinkRequest reset(device, inputOf(SCARD_COLD_RESET, 0));
  LinkRequest attribute(device, inputOf(SCARD_ATTR_ATR_STRING, 0));
  LinkRequest protocol(device, inputOf(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, 0));
  Bytes transmitInput = inputOf(0, kTransmitHeaderSize);
  transmitInput.insert(transmitInput.end(), {0x00, 0xA4, 0x04, 0x00});
  LinkRequest transmit(device, transmitInput);
  LinkRequest present(device);
  reader.IoSmartCardPower(&reset, 4, 4096);
  reader.IoSmartCardTransmit(&transmit, transmitInput.size(), 4096);
  reader.IoSmartCardGetAttribute(&attribute, 4, 4096);
  reader.IoSmartCardSetProtocol(&protocol, 4, 0);
  reader.IoSmartCardIsPresent(&present, 0, 0);
  reader.shutdown();
  for (const LinkRequest* request : {&reset, &attribute, &protocol, &transmit, &present}) {
    if (request->completions() != 1) return "a request was not completed exactly once";
    if (request->references() != 0) return "a reference on a request was kept";
  }
  return {};
}

}  // namespace

std::string playHostileAgent(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return {};
  const std::size_t announced = data[0] | std::size_t{data[1]} << 8;
  const std::size_t events = std::min(announced, size - 2);
  const std::uint8_t* const command = data + 2 + events;
  HostilePipes pipes(Bytes(data + 2, command), Bytes(command, data + size));
  const PipesForNow scoped(pipes);
  const LogCapture log;
  LinkDevice device;
  LinkRequest insertion(device);
  PipeReader reader(0, &device);
  device.setReader(&reader);
  // Queued, as there is no agent yet, and so lets it in.
  reader.IoSmartCardIsPresent(&insertion, 0, 0);
  if (!pipes.waitUntilDropped()) return "the agent was not dropped";
  std::string violated = ask(reader, device);
  if (violated.empty() && insertion.completions() != 1) violated = "the insertion request hangs";
  device.setReader(nullptr);
  return violated;
}

}  // namespace zelta::test
