// The state of the driver's server thread, read from its attribute.
//
// Pure functions.
#pragma once

#include <cstdint>
#include <string>

#include "platform/process/error.h"

namespace zelta::pcsc {

inline constexpr std::uint32_t kServing = platform::error::kSuccess;
inline constexpr std::uint32_t kStillStarting = platform::error::kIoPending;

// For the log, why the thread has ended:
//   5 -> "access to its pipes is denied (5)"   5023 -> "nobody asked for a card within 10 s (5023)"
// and the number alone if there is no text for it.
std::string serverResultText(std::uint32_t result);

}  // namespace zelta::pcsc
