// One buffer of a request, input or output, as a framework memory object.
//
// A shorter buffer than the driver's fixed-size reads is backed by zero bytes up to the next
// multiple of 16, as the operating system's buffers are; they do not count in the size.
#pragma once

#include <cstdint>
#include <vector>

#include "host/wdf_object.h"

namespace zelta::host {

class WdfMemory final : public WdfObject<WdfMemory, framework::IWDFMemory> {
 public:
  // `size` bytes, zero. Throws std::bad_alloc or std::length_error.
  WdfMemory(SharedDriverErrors errors, std::size_t size);
  WdfMemory(SharedDriverErrors errors, const std::vector<std::uint8_t>& bytes);

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromMemory(framework::IWDFMemory* source,
                                                            void* sourceOffset) override;
  // Each copies all or, where the range is not inside the memory, nothing.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyToBuffer(framework::ULONG_PTR sourceOffset,
                                                          void* target,
                                                          framework::SIZE_T size) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CopyFromBuffer(framework::ULONG_PTR destinationOffset,
                                                            const void* source,
                                                            framework::SIZE_T size) override;
  framework::SIZE_T ZELTA_STDMETHODCALLTYPE GetSize() override { return size_; }
  void* ZELTA_STDMETHODCALLTYPE GetDataBuffer(framework::SIZE_T* size) override;
  void ZELTA_STDMETHODCALLTYPE SetBuffer(void* buffer, framework::SIZE_T size) override;

  // The first `count` bytes, or all where there are fewer.
  std::vector<std::uint8_t> front(std::size_t count) const;

 private:
  bool holds(std::size_t offset, std::size_t size) const {
    return offset <= size_ && size <= size_ - offset;
  }

  const std::size_t size_;  // bytes
  std::vector<std::uint8_t> bytes_;
};

}  // namespace zelta::host
