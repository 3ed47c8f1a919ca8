// A host for the driver module: loads it, implements the framework's side, carries I/O controls
// and their cancellation.
//
//   auto host = zelta::host::DriverHost::load("/usr/lib/.../libzelta_vsc.so");  // throws HostError
//   host->bringUp();                                                           // throws HostError
//   auto file = host->open(L"dev0");
//   IoResult result = file->control(IOCTL_SMARTCARD_GET_STATE, {}, 4, 2s);
//   host->tearDown();
//
// Ownership: a `DriverHost` owns the loaded module, the device, its dispatch threads and every
// request in flight. Files and operations are handles that keep what they need alive; used after
// `tearDown` they fail with `kDeviceGone`.
// Threads: every method may be called from any thread, except that `bringUp`, `tearDown` and the
// destructor are the owner's and do not overlap. Completion callbacks run on a thread of the
// driver's, under the driver's device lock: they must return at once and must not call back
// into the host except to submit from another thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/com.h"

namespace zelta::host {

// Loading or bringing up failed; the text says what and why.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Statuses of the host's own.
inline constexpr framework::HRESULT kTimedOut = framework::hresult(0x800705B4);    // 1460
inline constexpr framework::HRESULT kDeviceGone = framework::hresult(0x8007048F);  // 1167

struct IoResult {
  framework::HRESULT status = 0;
  // The byte count that the driver completed with; may exceed the output's capacity.
  std::size_t information = 0;
  // The valid output: at most `information` and at most the capacity asked for.
  std::vector<std::uint8_t> output;
};

// One I/O control under way. Dropping the handle does not cancel it.
class IoOperation {
 public:
  virtual ~IoOperation() = default;
  // Waits until the request is completed; false when the time ran out.
  virtual bool wait(std::chrono::milliseconds limit) = 0;
  // Waits until the driver's dispatch callback has returned (the request is completed or waits in
  // the driver); false when the time ran out.
  virtual bool waitDispatched(std::chrono::milliseconds limit) = 0;
  virtual bool completed() const = 0;
  // Cancels: a request that waits, marked cancelable, is handed to the driver's cancel callback
  // on this thread; one that is not marked yet is as soon as it is marked; a completed one is
  // left alone.
  virtual void cancel() = 0;
  // Only after completion.
  virtual const IoResult& result() const = 0;
};

class File {
 public:
  virtual ~File() = default;
  using Completion = std::function<void(const IoResult&)>;

  // Waits for the result; cancels the request when the time runs out and gives `kTimedOut` (what
  // the driver still completes is thrown away).
  virtual IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                           std::size_t outputCapacity, std::chrono::milliseconds limit) = 0;
  // Returns at once. `completion` (may be empty) is called exactly once.
  virtual std::shared_ptr<IoOperation> submit(std::uint32_t code,
                                              const std::vector<std::uint8_t>& input,
                                              std::size_t outputCapacity,
                                              Completion completion) = 0;
};

class DriverHost {
 public:
  // Loads the module and checks its exports and framework version.
  static std::unique_ptr<DriverHost> load(const std::string& modulePath);
  virtual ~DriverHost() = default;  // tears down and unloads

  // Class factory to working power state.
  virtual void bringUp() = 0;
  // Stops taking requests, waits for running dispatch callbacks, takes the device down and
  // releases it. Whatever the driver did not complete is completed with `kDeviceGone`. Harmless
  // when already down.
  virtual void tearDown() = 0;
  // Asks the module and unloads it; false (still loaded) when it answered that it may not be.
  virtual bool unload() = 0;

  // `name` is an interface's reference string, "dev0". Null where the driver published none such.
  virtual std::shared_ptr<File> open(const std::wstring& name) = 0;
};

}  // namespace zelta::host
