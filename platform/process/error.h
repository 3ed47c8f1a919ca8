// The last error of the calling thread and the system error numbers that the code names. The
// numbers are Windows' own on every platform.
#pragma once

#include <cstdint>

namespace zelta::platform {

// Per thread. Calls that succeed need not reset it.
std::uint32_t lastError();
void setLastError(std::uint32_t error);

namespace error {

inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kInvalidFunction = 1;
inline constexpr std::uint32_t kFileNotFound = 2;
inline constexpr std::uint32_t kTooManyOpenFiles = 4;
inline constexpr std::uint32_t kAccessDenied = 5;
inline constexpr std::uint32_t kInvalidHandle = 6;
inline constexpr std::uint32_t kNotEnoughMemory = 8;
inline constexpr std::uint32_t kGenFailure = 31;
inline constexpr std::uint32_t kNotSupported = 50;
inline constexpr std::uint32_t kInvalidParameter = 87;
inline constexpr std::uint32_t kBrokenPipe = 109;
inline constexpr std::uint32_t kDiskFull = 112;
inline constexpr std::uint32_t kInsufficientBuffer = 122;
inline constexpr std::uint32_t kInvalidName = 123;
inline constexpr std::uint32_t kAlreadyExists = 183;
inline constexpr std::uint32_t kNameTooLong = 206;
inline constexpr std::uint32_t kBadPipe = 230;
inline constexpr std::uint32_t kPipeBusy = 231;
inline constexpr std::uint32_t kNoData = 232;
inline constexpr std::uint32_t kPipeNotConnected = 233;
inline constexpr std::uint32_t kMoreData = 234;
inline constexpr std::uint32_t kPipeConnected = 535;
inline constexpr std::uint32_t kPipeListening = 536;
inline constexpr std::uint32_t kOperationAborted = 995;
inline constexpr std::uint32_t kIoPending = 997;
inline constexpr std::uint32_t kDeviceNotConnected = 1167;
inline constexpr std::uint32_t kNotFound = 1168;
inline constexpr std::uint32_t kCancelled = 1223;
inline constexpr std::uint32_t kNoneMapped = 1332;
inline constexpr std::uint32_t kInvalidSecurityDescriptor = 1338;
inline constexpr std::uint32_t kTimeout = 1460;
inline constexpr std::uint32_t kUnrecognizedMedia = 1785;
inline constexpr std::uint32_t kInvalidState = 5023;

}  // namespace error

// kNotEnoughMemory in the other form that system calls answer with, an HRESULT.
inline constexpr auto kOutOfMemoryResult = static_cast<std::int32_t>(0x8007000E);

}  // namespace zelta::platform
