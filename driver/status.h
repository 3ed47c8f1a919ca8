// The statuses that requests are completed with.
#pragma once

#include "framework/com.h"
#include "platform/error.h"

namespace zelta {

// The status made of a system error number.
constexpr framework::HRESULT hresultFromError(std::uint32_t error) {
  return error == 0 ? framework::kOk : framework::hresult(0x80070000u | (error & 0xFFFFu));
}

namespace status {

inline constexpr framework::HRESULT kSuccess = framework::kOk;
inline constexpr framework::HRESULT kOutOfMemory = framework::hresult(0x8007000E);
inline constexpr framework::HRESULT kGenFailure = hresultFromError(platform::error::kGenFailure);
inline constexpr framework::HRESULT kNotSupported =
    hresultFromError(platform::error::kNotSupported);
inline constexpr framework::HRESULT kInvalidArgument =
    hresultFromError(platform::error::kInvalidParameter);
inline constexpr framework::HRESULT kCancelled = hresultFromError(platform::error::kCancelled);
inline constexpr framework::HRESULT kUnrecognizedMedia =
    hresultFromError(platform::error::kUnrecognizedMedia);
inline constexpr framework::HRESULT kInvalidState =
    hresultFromError(platform::error::kInvalidState);
inline constexpr framework::HRESULT kNoMedia = framework::hresult(0xC0000178);
inline constexpr framework::HRESULT kInvalidDeviceState = framework::hresult(0xC0000184);

static_assert(kInvalidArgument == framework::hresult(0x80070057));
static_assert(kInvalidState == framework::hresult(0x8007139F));
static_assert(kUnrecognizedMedia == framework::hresult(0x800706F9));
static_assert(kCancelled == framework::hresult(0x800704C7));

}  // namespace status

}  // namespace zelta
