// An I/O request as the driver's logic sees it. Each operation is one of the framework's request,
// file or memory objects; an adapter forwards it there, and away from the framework any object
// with these operations serves.
//
// Threads: a request is handled by one thread at a time; whoever completes it holds the device
// lock. After completion nothing but the release of a reference taken before may follow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "framework/wdf.h"

namespace zelta {

// A buffer of a request. Valid while the request is not completed; the holder releases it.
class IoMemory {
 public:
  virtual ~IoMemory() = default;
  // The data pointer; `size` in bytes.
  virtual void* dataBuffer(std::size_t* size) = 0;
  // Fails, and copies nothing, where the bytes do not fit.
  virtual framework::HRESULT copyFromBuffer(std::size_t offset, const void* source,
                                            std::size_t size) = 0;
};

// The file object through which the caller opened the device.
class IoFile {
 public:
  virtual ~IoFile() = default;
  // `capacity` is in characters, the terminator included, and is updated.
  virtual framework::HRESULT retrieveFileName(wchar_t* buffer, framework::DWORD* capacity) = 0;
};

class IoRequest {
 public:
  virtual ~IoRequest() = default;

  // Finishes the request with a status and the count of valid output bytes.
  virtual void completeWithInformation(framework::HRESULT status, std::size_t information) = 0;
  // Finishes the request with a status and no byte count.
  virtual void complete(framework::HRESULT status) = 0;

  // Each a new holder, or none where the request has no such object.
  virtual std::unique_ptr<IoMemory> inputMemory() = 0;
  virtual std::unique_ptr<IoMemory> outputMemory() = 0;
  virtual std::unique_ptr<IoFile> fileObject() = 0;

  // Registers the cancel callback of a request that is kept waiting. The callback may run before
  // this returns.
  virtual void markCancelable(framework::IRequestCallbackCancel* callback) = 0;
  // Withdraws the registration; fails where cancellation is under way.
  virtual framework::HRESULT unmarkCancelable() = 0;

  // References on the framework's own object and on this one, whichever would go first.
  virtual void addRef() = 0;
  virtual void release() = 0;
};

}  // namespace zelta
