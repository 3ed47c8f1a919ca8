// How the driver's server thread is, as its attribute says.
//
// Pure functions.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::pcsc {

inline constexpr std::uint32_t kServing = 0;
inline constexpr std::uint32_t kStillStarting = 997;

// For the log, why the thread has ended:
//   5 -> "access to its pipes is denied (5)"   5023 -> "nobody asked for a card within 10 s (5023)"
// and the number alone where there is no text for it.
std::string serverResultText(std::uint32_t result);

}  // namespace zelta::pcsc
