// The statuses that requests are completed with: HRESULTs and NT statuses, 32 bits, negative for a
// failure.
#pragma once

#include <cstdint>

namespace zelta {

using Status = std::int32_t;

constexpr Status statusOf(std::uint32_t value) { return static_cast<Status>(value); }

// The status made of a system error number.
constexpr Status hresultFromError(std::uint32_t error) {
  return error == 0 ? 0 : statusOf(0x80070000u | (error & 0xFFFFu));
}

namespace status {

inline constexpr Status kSuccess = 0;
inline constexpr Status kOutOfMemory = statusOf(0x8007000E);      // E_OUTOFMEMORY
inline constexpr Status kGenFailure = statusOf(0x8007001F);       // ERROR_GEN_FAILURE (31)
inline constexpr Status kNotSupported = statusOf(0x80070032);     // ERROR_NOT_SUPPORTED (50)
inline constexpr Status kInvalidArgument = statusOf(0x80070057);  // E_INVALIDARG
inline constexpr Status kCancelled = statusOf(0x800704C7);        // ERROR_CANCELLED (1223)
inline constexpr Status kUnrecognizedMedia =
    statusOf(0x800706F9);                                      // ERROR_UNRECOGNIZED_MEDIA (1785)
inline constexpr Status kInvalidState = statusOf(0x8007139F);  // ERROR_INVALID_STATE (5023)
inline constexpr Status kNoMedia = statusOf(0xC0000178);       // STATUS_NO_MEDIA
inline constexpr Status kInvalidDeviceState = statusOf(0xC0000184);  // STATUS_INVALID_DEVICE_STATE

}  // namespace status

}  // namespace zelta
