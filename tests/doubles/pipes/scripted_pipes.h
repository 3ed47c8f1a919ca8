// Pipes that record every call and follow the test: each call succeeds unless it was told to fail;
// a cancel fails with 1168 if nothing is blocked, a call with an unknown handle with 6. There is no
// client; the test feeds the client's bytes.
//
// Any thread may call. A read without enough bytes, and a held connect, block until they are fed or
// released, cancelled (995), disconnected or closed (109). Waits of the test itself end with false
// after `kLimit`.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "platform/pipe/pipe.h"
#include "tests/support/shared.h"

namespace zelta::test {

enum class PipeCallKind {
  kConvert,
  kCreate,
  kConnect,
  kDisconnect,
  kCancel,
  kRead,
  kWrite,
  kFlush,
  kClose,
};

struct PipeCall {
  PipeCall(PipeCallKind which, platform::PipeHandleValue handle = nullptr, std::uint32_t bytes = 0)
      : kind(which), pipe(handle), size(bytes) {}

  PipeCallKind kind;
  std::string text;                   // Convert: the SDDL; else the pipe's name
  platform::PipeHandleValue pipe;     // Create: the result
  platform::PipeArguments arguments;  // Create
  std::uint32_t size;                 // Read, Write: bytes asked for
  std::vector<std::uint8_t> data;     // Write
};

class ScriptedPipes final : public platform::PipeApi {
 public:
  static constexpr unsigned kForever = ~0U;
  static constexpr std::chrono::milliseconds kLimit{30000};

  // The first handle; each further one is one greater.
  explicit ScriptedPipes(std::uintptr_t firstHandle = 0x1000) {
    state_.lock()->nextHandle = firstHandle;
  }

  // Calls `from` (counted from 1 since the double was made, of this kind and pipe) and the
  // `count - 1` after it fail with the error. Without a name, the calls on every pipe count.
  void fail(PipeCallKind kind, std::uint32_t error, unsigned from = 1, unsigned count = 1,
            const std::string& name = {});
  // Bytes that the pipe's reads take, in order.
  void feed(const std::string& name, const std::vector<std::uint8_t>& bytes);
  // Nothing more is fed: a read that finds too few bytes takes them and fails with 109.
  void endFeed(const std::string& name) { state_.lock()->pipes[name].ended = true; }
  // Connects on the pipe block until `letConnect`, which lets one of them succeed.
  void holdConnect(const std::string& name) { state_.lock()->pipes[name].held = true; }
  void letConnect(const std::string& name) { ++state_.lock()->pipes[name].permits; }

  std::vector<PipeCall> calls() const { return state_.lock()->calls; }
  std::vector<PipeCall> calls(PipeCallKind kind) const;
  // Waits for the first such call.
  bool waitForCall(PipeCallKind kind, const std::string& name);
  // Waits until a read or connect is blocked on the pipe.
  bool waitUntilBlocked(const std::string& name);
  // The result of every conversion.
  platform::SecurityDescriptor descriptor() { return &descriptor_; }

  bool convertSecurityDescriptor(const std::string& sddl,
                                 platform::SecurityDescriptor* out) override;
  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override;
  bool connect(platform::PipeHandleValue pipe) override;
  bool disconnect(platform::PipeHandleValue pipe) override;
  bool cancel(platform::PipeHandleValue pipe) override;
  bool read(platform::PipeHandleValue pipe, void* data, std::uint32_t size) override;
  bool write(platform::PipeHandleValue pipe, const void* data, std::uint32_t size) override;
  bool flush(platform::PipeHandleValue pipe) override;
  bool close(platform::PipeHandleValue pipe) override;

 private:
  struct Wait {
    std::uint32_t endedBy = 0;
  };
  struct Pipe {
    std::deque<std::uint8_t> fed;
    bool ended = false;
    bool held = false;  // connects need a permit
    unsigned permits = 0;
    std::vector<Wait*> waits;  // on their callers' stacks
  };
  struct Failure {
    PipeCallKind kind;
    std::uint32_t error;
    unsigned from;
    unsigned count;
    std::string name;
  };

  struct State {
    std::uintptr_t nextHandle = 0;
    std::map<std::string, Pipe> pipes;
    std::map<platform::PipeHandleValue, std::string> handles;
    std::vector<Failure> failures;
    std::vector<PipeCall> calls;

    Pipe& pipeOf(platform::PipeHandleValue pipe) { return pipes[handles[pipe]]; }
    // The error that a recorded call was told to fail with.
    std::uint32_t scriptedError(const PipeCall& call) const;
  };
  using Access = Shared<State>::Access;

  // Records the call and makes it: `body` returns its error, unless it was told to fail (or the
  // handle is bad: 6).
  template <typename Body>
  bool run(PipeCall call, Body body);
  template <typename Ready>
  static std::uint32_t block(Pipe& pipe, Access& state, Ready ready);
  // True if something was blocked.
  static bool endWaits(Pipe& pipe, std::uint32_t error);
  static bool matches(const PipeCall& call, PipeCallKind kind, const std::string& name);

  char descriptor_ = 0;
  mutable Shared<State> state_;
};

}  // namespace zelta::test
