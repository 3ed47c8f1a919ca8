#include "host/wdf_memory.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace zelta::host {

using framework::HRESULT;

namespace {

constexpr std::size_t kGranularity = 16;  // bytes

std::size_t backedSize(std::size_t size) {
  if (size > SIZE_MAX - kGranularity) throw std::length_error("buffer too large");
  return (size + kGranularity - 1) / kGranularity * kGranularity;
}

}  // namespace

WdfMemory::WdfMemory(SharedDriverErrors errors, std::size_t size)
    : WdfObject(std::move(errors)), size_(size), bytes_(backedSize(size)) {}

WdfMemory::WdfMemory(SharedDriverErrors errors, const std::vector<std::uint8_t>& bytes)
    : WdfMemory(std::move(errors), bytes.size()) {
  std::copy(bytes.begin(), bytes.end(), bytes_.begin());
}

HRESULT WdfMemory::CopyFromMemory(framework::IWDFMemory*, void*) {
  return errors().notImplemented("IWDFMemory::CopyFromMemory");
}

HRESULT WdfMemory::CopyToBuffer(framework::ULONG_PTR sourceOffset, void* target,
                                framework::SIZE_T size) {
  if (!holds(sourceOffset, size)) return kInsufficientBuffer;
  if (size == 0) return framework::kOk;
  if (target == nullptr) return framework::kPointer;
  std::memcpy(target, bytes_.data() + sourceOffset, size);
  return framework::kOk;
}

HRESULT WdfMemory::CopyFromBuffer(framework::ULONG_PTR destinationOffset, const void* source,
                                  framework::SIZE_T size) {
  if (!holds(destinationOffset, size)) return kInsufficientBuffer;
  if (size == 0) return framework::kOk;
  if (source == nullptr) return framework::kPointer;
  std::memcpy(bytes_.data() + destinationOffset, source, size);
  return framework::kOk;
}

void* WdfMemory::GetDataBuffer(framework::SIZE_T* size) {
  if (size != nullptr) *size = size_;
  return bytes_.data();
}

void WdfMemory::SetBuffer(void*, framework::SIZE_T) {
  errors().notImplemented("IWDFMemory::SetBuffer");
}

std::vector<std::uint8_t> WdfMemory::front(std::size_t count) const {
  const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(std::min(count, size_));
  return {bytes_.begin(), end};
}

}  // namespace zelta::host
