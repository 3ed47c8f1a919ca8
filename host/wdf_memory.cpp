#include "host/wdf_memory.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace zelta::host {

using framework::HRESULT;

namespace {

constexpr std::size_t kGranularity = 16;  // bytes

void copy(std::uint8_t* target, ConstBytes source) {
  if (source.size > 0) std::memcpy(target, source.data, source.size);
}

}  // namespace

WdfMemory::WdfMemory(const DriverErrors& errors, framework::IUnknown& request)
    : WdfObject(SharedDriverErrors(SharedDriverErrors(), &errors)), request_(request) {}

std::size_t WdfMemory::storageFor(std::size_t size) {
  if (size > SIZE_MAX - kGranularity) throw std::length_error("buffer too large");
  return (size + kGranularity - 1) / kGranularity * kGranularity;
}

void WdfMemory::setStorage(std::uint8_t* storage, std::size_t size) {
  storage_ = storage;
  size_ = size;
}

void WdfMemory::fill(ConstBytes first, ConstBytes second) {
  copy(storage_, first);
  copy(storage_ + first.size, second);
  initialised_ = first.size + second.size;
}

ConstBytes WdfMemory::front(std::size_t count) {
  const std::size_t shown = std::min(count, size_);
  initialiseTo(shown);
  return {storage_, shown};
}

void WdfMemory::initialiseTo(std::size_t end) {
  if (end <= initialised_) return;
  std::memset(storage_ + initialised_, 0, end - initialised_);
  initialised_ = end;
}

HRESULT WdfMemory::CopyFromMemory(framework::IWDFMemory*, void*) {
  return errors().notImplemented("IWDFMemory::CopyFromMemory");
}

HRESULT WdfMemory::CopyToBuffer(framework::ULONG_PTR sourceOffset, void* target,
                                framework::SIZE_T size) {
  if (!holds(sourceOffset, size)) return kInsufficientBuffer;
  if (size == 0) return framework::kOk;
  if (target == nullptr) return framework::kPointer;
  initialiseTo(sourceOffset + size);
  std::memcpy(target, storage_ + sourceOffset, size);
  return framework::kOk;
}

HRESULT WdfMemory::CopyFromBuffer(framework::ULONG_PTR destinationOffset, const void* source,
                                  framework::SIZE_T size) {
  if (!holds(destinationOffset, size)) return kInsufficientBuffer;
  if (size == 0) return framework::kOk;
  if (source == nullptr) return framework::kPointer;
  initialiseTo(destinationOffset);
  std::memcpy(storage_ + destinationOffset, source, size);
  initialised_ = std::max<std::size_t>(initialised_, destinationOffset + size);
  return framework::kOk;
}

void* WdfMemory::GetDataBuffer(framework::SIZE_T* size) {
  // The pointer's use is not visible here.
  initialiseTo(storageFor(size_));
  if (size != nullptr) *size = size_;
  return storage_;
}

void WdfMemory::SetBuffer(void*, framework::SIZE_T) {
  errors().notImplemented("IWDFMemory::SetBuffer");
}

}  // namespace zelta::host
