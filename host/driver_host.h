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
// if callers do, unless the options say otherwise. Files and operations are the caller's handles
// and may outlive the host: used after `tearDown` they fail with `kDeviceGone`. Threads: every
// method may be called from any thread, except that `bringUp`, `tearDown`, `unload` and the
// destructor are the owner's and do not overlap. Nothing else need be stopped before `tearDown`:
// calls during it are carried out or fail with `kDeviceGone`.
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

// The caller's bytes, which must stay valid during a call.
struct ConstBytes {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;  // bytes
};
struct MutableBytes {
  std::uint8_t* data = nullptr;
  std::size_t size = 0;  // bytes
};

// An I/O control's buffers in two parts each, so that the header and its body need not be copied
// together.
struct InputParts {
  ConstBytes header;
  ConstBytes body;
};
struct OutputParts {
  MutableBytes header;
  MutableBytes body;
};

// A request's completion.
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
  // The result of `wait` without waiting.
  virtual bool completed() const = 0;
  // Passes a request that is marked cancelable to the driver's cancel callback on this thread, or
  // does so as soon as it is marked. No effect on a completed or cancelled request, nor during and
  // after `tearDown`: the driver's own shutdown completes waiting requests.
  virtual void cancel() = 0;
  // Call only after completion.
  virtual const IoResult& result() const = 0;
};

// An open handle of one of the driver's interfaces. Requests under way go on when it is dropped.
class File {
 public:
  virtual ~File() = default;
  // Called exactly once per request: on a thread of the driver, usually under its device lock, on
  // the thread of the host's owner, or before `submit` returns. It must return at once, must not
  // throw, and must not call the host, a file or an operation.
  using Completion = std::function<void(const IoResult&)>;

  // Waits for the result. If the time runs out, cancels the request and returns `kTimedOut`; a
  // later completion is discarded. The time counts from the return of the driver's dispatch
  // callback, whose duration only the driver limits. A request that cannot be begun ends with
  // `kDeviceGone`, with E_OUTOFMEMORY if there is no memory, or with ERROR_INVALID_FUNCTION (1) if
  // the driver has no queue for I/O controls.
  virtual IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                           std::size_t outputCapacity, std::chrono::milliseconds limit) = 0;
  // Like `control`, between the caller's buffers. The valid output, cut to the room, is written to
  // the two parts of `output`; the rest of them is not changed. All memory is allocated before the
  // driver is called.
  virtual IoStatus controlInParts(std::uint32_t code, const InputParts& input,
                                  const OutputParts& output, std::chrono::milliseconds limit) = 0;
  // Dispatches the request on this thread and returns after the driver's dispatch callback: the
  // request is then completed, or waits in the driver. Never null; the input is copied;
  // `completion` may be empty. A request that cannot be begun is completed as above. Throws
  // std::bad_alloc if there is no memory for the operation itself: nothing is begun then and
  // nothing will be completed.
  virtual std::shared_ptr<IoOperation> submit(std::uint32_t code,
                                              const std::vector<std::uint8_t>& input,
                                              std::size_t outputCapacity,
                                              Completion completion) = 0;
};

struct HostOptions {
  // Called for a driver's violation of the framework's rules (a request completed twice, an
  // operation that the host does not implement), on the driver's thread, often under its locks. May
  // throw only std::bad_alloc, which loses that text.
  // If empty, each goes to the standard error output as one line.
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
  // Tears down and unloads. A module that does not agree to be unloaded stays loaded.
  virtual ~DriverHost() = default;

  // Goes from class factory to working power state. If a step fails, the steps before it are
  // undone. May follow a `tearDown`: the driver object is made afresh. Harmless when already up.
  virtual void bringUp() = 0;
  // 1. Refuses new requests and cancels.
  // 2. Has the driver leave its working state, which ends the running callbacks, and waits for
  //    them.
  // 3. Releases the device and completes with `kDeviceGone` what the driver did not complete.
  // On return no callback of the driver is running on a thread of the host or of its callers. Needs
  // no memory. Harmless when already down.
  virtual void tearDown() noexcept = 0;
  // Unloads the module if it agrees; true if it is unloaded already. False, and still loaded, if it
  // does not agree or, without asking it, while the device is up.
  [[nodiscard]] virtual bool unload() = 0;

  // `name` is an interface's reference string, "dev0". Null if the driver published none such
  // or is not up.
  virtual std::shared_ptr<File> open(const std::wstring& name) = 0;
  // The reference strings that can be opened now, in the order in which they were published.
  virtual std::vector<std::wstring> interfaces() const = 0;
};

}  // namespace zelta::host
