// An I/O request as the driver's logic sees it. Each operation is one of the framework's request,
// file or memory objects; an adapter forwards it there. Without the framework, any object with
// these operations will do.
//
// Threads: a request is handled by one thread at a time; the completing thread holds the device
// lock. After completion only a reference taken before may be released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "framework/wdf.h"

namespace zelta {

// A buffer of a request. Valid while the request is not completed; released before that.
class IoMemory {
 public:
  // The data pointer; `size` in bytes.
  virtual void* dataBuffer(std::size_t* size) = 0;
  // If the bytes do not fit, fails and copies nothing.
  [[nodiscard]] virtual framework::HRESULT copyFromBuffer(std::size_t offset, const void* source,
                                                          std::size_t size) = 0;
  virtual void release() noexcept = 0;

 protected:
  ~IoMemory() = default;
};

// The file object through which the caller opened the device.
class IoFile {
 public:
  // `capacity` is in characters, the terminator included, and is updated.
  [[nodiscard]] virtual framework::HRESULT retrieveFileName(wchar_t* buffer,
                                                            framework::DWORD* capacity) = 0;
  virtual void release() noexcept = 0;

 protected:
  ~IoFile() = default;
};

struct Releaser {
  template <typename Object>
  void operator()(Object* held) const noexcept {
    held->release();
  }
};

// One of a request's objects, released at the end of the scope. The object may live in its request,
// so that holding it allocates nothing.
template <typename Object>
using Held = std::unique_ptr<Object, Releaser>;

class IoRequest {
 public:
  virtual ~IoRequest() = default;

  // Finishes the request with a status and the count of valid output bytes.
  virtual void completeWithInformation(framework::HRESULT status, std::size_t information) = 0;
  // Finishes the request with a status and no byte count.
  virtual void complete(framework::HRESULT status) = 0;

  // Each a new reference, or none if the request has no such object. Held once at a time.
  virtual Held<IoMemory> inputMemory() = 0;
  virtual Held<IoMemory> outputMemory() = 0;
  virtual Held<IoFile> fileObject() = 0;

  // Registers the cancel callback of a request that is kept waiting. The callback may run before
  // this returns.
  virtual void markCancelable(framework::IRequestCallbackCancel* callback) = 0;
  // Withdraws the registration; fails if a cancellation is under way.
  [[nodiscard]] virtual framework::HRESULT unmarkCancelable() = 0;

  // References on the framework's own object and on this one.
  virtual void addRef() = 0;
  virtual void release() = 0;
};

}  // namespace zelta
