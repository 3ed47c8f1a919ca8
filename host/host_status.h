// The statuses that the host's framework objects answer with.
#pragma once

#include "framework/com.h"

namespace zelta::host {

inline constexpr framework::HRESULT kNotImplemented = framework::hresult(0x80004001);
inline constexpr framework::HRESULT kOutOfMemory = framework::hresult(0x8007000E);
inline constexpr framework::HRESULT kInvalidArgument = framework::hresult(0x80070057);
// The rest are made of system error numbers: 1, 50, 122, 183, 1168, 1223.
inline constexpr framework::HRESULT kInvalidFunction = framework::hresult(0x80070001);
inline constexpr framework::HRESULT kNotSupported = framework::hresult(0x80070032);
inline constexpr framework::HRESULT kInsufficientBuffer = framework::hresult(0x8007007A);
inline constexpr framework::HRESULT kAlreadyExists = framework::hresult(0x800700B7);
inline constexpr framework::HRESULT kNotFound = framework::hresult(0x80070490);
inline constexpr framework::HRESULT kCancelled = framework::hresult(0x800704C7);

}  // namespace zelta::host
