// A host for the driver module: loads it, implements the framework's side, carries I/O controls
// and their cancellation.
//
//   auto host = zelta::host::DriverHost::load("/usr/lib/.../libzelta_vsc.so");  // throws HostError
//   host->bringUp();                                                           // throws HostError
//   auto file = host->open(L"dev0");
//   IoResult result = file->control(IOCTL_SMARTCARD_GET_STATE, {}, 4, 2s);
//   host->tearDown();
//
// Ownership: a `DriverHost` owns the loaded module, the device and every request that waits in the
// driver. It has no threads: an I/O control is dispatched on its caller's, and callbacks overlap
// if callers do, unless the options say otherwise. Files and operations are handles of the
// caller's, independent of the host's life: used after `tearDown` they fail with `kDeviceGone`.
// Threads: every method may be called from any thread, except that `bringUp`, `tearDown`, `unload`
// and the destructor are the owner's and do not overlap. Nothing else need be stopped before
// `tearDown`: what is called while it runs is carried out or fails with `kDeviceGone`.
// Failures: `load` and `bringUp` throw; everything else returns statuses, or throws std::bad_alloc.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "contract/status.h"
#include "framework/com.h"
#include "platform/process/error.h"

namespace zelta::host {

// Loading or bringing up failed; the text says what and why.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Statuses of the host's own.
inline constexpr framework::HRESULT kTimedOut = hresultFromError(platform::error::kTimeout);
inline constexpr framework::HRESULT kDeviceGone =
    hresultFromError(platform::error::kDeviceNotConnected);

// Bytes of the caller's, which must stay for as long as a call lasts.
struct ConstBytes {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;  // bytes
};
struct MutableBytes {
  std::uint8_t* data = nullptr;
  std::size_t size = 0;  // bytes
};

// An I/O control's buffers in two parts each: a header, and the body that follows it, which need
// not be copied together.
struct InputParts {
  ConstBytes header;
  ConstBytes body;
};
struct OutputParts {
  MutableBytes header;
  MutableBytes body;
};

// What a request was completed with.
struct IoStatus {
  framework::HRESULT status = 0;
  // The byte count; may exceed the output's capacity.
  std::size_t information = 0;
};

struct IoResult {
  framework::HRESULT status = 0;
  // The byte count that the driver completed with; may exceed the output's capacity.
  std::size_t information = 0;
  // The valid output: at most `information` and at most the capacity asked for. Not wiped:
  // ask by `controlInParts` for what may be secret.
  std::vector<std::uint8_t> output;
};

// One I/O control under way. Dropping the handle does not cancel it.
class IoOperation {
 public:
  virtual ~IoOperation() = default;
  // Waits until the request is completed and its completion callback has returned; false when
  // the time ran out.
  [[nodiscard]] virtual bool wait(std::chrono::milliseconds limit) = 0;
  // What `wait` would return if it did not wait.
  virtual bool completed() const = 0;
  // Cancels: a request that waits, marked cancelable, is handed to the driver's cancel callback
  // on this thread; one that is not marked yet is as soon as it is marked; a completed one is
  // left alone. Cancelling again changes nothing. While `tearDown` runs, and after it, nothing
  // happens: the driver's own shutdown completes what waits.
  virtual void cancel() = 0;
  // Only after completion.
  virtual const IoResult& result() const = 0;
};

// An open handle of one of the driver's interfaces. Requests under way go on when it is dropped.
class File {
 public:
  virtual ~File() = default;
  // Called exactly once per request: on a thread of the driver's, usually under the driver's device
  // lock, on the host's owner's, or before `submit` returns. It must return at once, must not
  // throw, and must not call the host, a file or an operation.
  using Completion = std::function<void(const IoResult&)>;

  // Waits for the result; cancels a request that the driver keeps when the time runs out, and gives
  // `kTimedOut` (what the driver still completes is thrown away). The time counts from the return
  // of the driver's dispatch callback, whose duration only the driver limits. A request that cannot
  // be begun ends with `kDeviceGone`, with E_OUTOFMEMORY if there is no memory, or with
  // ERROR_INVALID_FUNCTION (1) if the driver has no queue for I/O controls.
  virtual IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                           std::size_t outputCapacity, std::chrono::milliseconds limit) = 0;
  // The same between buffers of the caller's. The valid output, no more than there is room, is
  // written to the two parts of `output`; the rest of them stays as it is. All memory is allocated
  // before the driver is called.
  virtual IoStatus controlInParts(std::uint32_t code, const InputParts& input,
                                  const OutputParts& output, std::chrono::milliseconds limit) = 0;
  // Dispatches the request on this thread and returns when the driver's dispatch callback has: the
  // request is completed by then, or waits in the driver. Never null; the input is copied;
  // `completion` may be empty. A request that cannot be begun is completed as above. Throws
  // std::bad_alloc if there is no memory for the operation itself: nothing is begun then and
  // nothing will be completed.
  virtual std::shared_ptr<IoOperation> submit(std::uint32_t code,
                                              const std::vector<std::uint8_t>& input,
                                              std::size_t outputCapacity,
                                              Completion completion) = 0;
};

struct HostOptions {
  // Told of what the driver does against the framework's rules (a request completed twice, an
  // operation that the host does not implement), on the driver's thread, often under its locks. May
  // throw std::bad_alloc, which loses that text, and nothing else.
  // Empty: one line each on the standard error output.
  std::function<void(const std::string&)> driverError;
  // Calls the driver's I/O and cancel callbacks one at a time, as Windows' host does: a caller
  // waits until the previous callback has returned. Power callbacks may overlap them. For tests;
  // $ZELTA_HOST_SERIALISE=1 has the same effect.
  bool serialiseCallbacks = false;
};

class DriverHost {
 public:
  // Loads the module and checks its exports and framework version.
  static std::unique_ptr<DriverHost> load(const std::string& modulePath, HostOptions options = {});
  // Tears down and unloads. A module that answers that it may not be unloaded stays loaded.
  virtual ~DriverHost() = default;

  // Class factory to working power state. If a step fails, the steps before it are undone. May
  // follow a `tearDown`: the driver object is made afresh. Harmless when already up.
  virtual void bringUp() = 0;
  // Stops taking requests and cancels, has the driver leave its working state, which ends what the
  // running callbacks do, waits for these and releases the device. Whatever the driver did not
  // complete is completed with `kDeviceGone`. When it returns no callback of the driver's is
  // running on a thread of the host's or of its callers'. Needs no memory. Harmless when already
  // down.
  virtual void tearDown() noexcept = 0;
  // Asks the module and unloads it; false (still loaded) when it answered that it may not be, and,
  // without asking, while the device is up. True when it is unloaded already.
  [[nodiscard]] virtual bool unload() = 0;

  // `name` is an interface's reference string, "dev0". Null if the driver published none such
  // or is not up.
  virtual std::shared_ptr<File> open(const std::wstring& name) = 0;
  // The reference strings that can be opened now, in the order in which they were published.
  virtual std::vector<std::wstring> interfaces() const = 0;
};

}  // namespace zelta::host
