// The statuses that the host's framework objects answer with.
#pragma once

#include "contract/status.h"
#include "framework/com.h"
#include "platform/process/error.h"

namespace zelta::host {

using status::kCancelled;
using status::kInvalidArgument;
using status::kOutOfMemory;

inline constexpr framework::HRESULT kNotImplemented = framework::hresult(0x80004001);  // E_NOTIMPL
inline constexpr framework::HRESULT kInvalidFunction =
    hresultFromError(platform::error::kInvalidFunction);
inline constexpr framework::HRESULT kInsufficientBuffer =
    hresultFromError(platform::error::kInsufficientBuffer);
inline constexpr framework::HRESULT kAlreadyExists =
    hresultFromError(platform::error::kAlreadyExists);
inline constexpr framework::HRESULT kNotFound = hresultFromError(platform::error::kNotFound);

}  // namespace zelta::host
