// One buffer of a request, input or output, as a framework memory object.
//
// It is a part of its request: a reference on it is one on the request, and its bytes are in the
// request's storage. The storage is not initialised; the first `initialised_` bytes of it are.
// Nothing beyond that is ever exposed: a reader of more gets zero bytes.
// A shorter buffer than the driver's fixed-size reads is backed by zero bytes up to the next
// multiple of 16, as the operating system's buffers are; they do not count in the size.
// Written bytes, a command for example, are wiped at the end.
// Threads: one at a time, as for a request's buffer.
#pragma once

#include <cstdint>

#include "host/driver_host.h"
#include "host/wdf_object.h"
#include "platform/process/wipe.h"

namespace zelta::host {

class WdfMemory final : public WdfObject<WdfMemory, framework::IWDFMemory> {
 public:
  // `errors` and the request outlive this and are not referenced.
  WdfMemory(const DriverErrors& errors, framework::IUnknown& request);
  ~WdfMemory() { platform::wipe(storage_, initialised_); }

  // The storage that `size` bytes take. Throws std::length_error if that exceeds the range of the
  // type.
  static std::size_t storageFor(std::size_t size);
  // Before the first use: `storageFor(size)` bytes, owned by the request.
  void setStorage(std::uint8_t* storage, std::size_t size);
  // Writes both, one after the other, which must fit.
  void fill(ConstBytes first, ConstBytes second);
  // The first `count` bytes, or all if there are fewer.
  ConstBytes front(std::size_t count);
  std::size_t size() const { return size_; }

  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override { return request_.AddRef(); }
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override { return request_.Release(); }

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromMemory(framework::IWDFMemory* source,
                                                            void* sourceOffset) override;
  // Each copies all or, if the range is not inside the memory, nothing.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyToBuffer(framework::ULONG_PTR sourceOffset,
                                                          void* target,
                                                          framework::SIZE_T size) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromBuffer(framework::ULONG_PTR destinationOffset,
                                                            const void* source,
                                                            framework::SIZE_T size) override;
  framework::SIZE_T ZELTA_STDMETHODCALLTYPE GetSize() override { return size_; }
  void* ZELTA_STDMETHODCALLTYPE GetDataBuffer(framework::SIZE_T* size) override;
  void ZELTA_STDMETHODCALLTYPE SetBuffer(void* buffer, framework::SIZE_T size) override;

 private:
  bool holds(std::size_t offset, std::size_t size) const {
    return offset <= size_ && size <= size_ - offset;
  }
  void initialiseTo(std::size_t end);

  framework::IUnknown& request_;  // not owned: it owns this
  std::uint8_t* storage_ = nullptr;
  std::size_t size_ = 0;         // bytes
  std::size_t initialised_ = 0;  // bytes, from the storage's beginning
};

}  // namespace zelta::host
