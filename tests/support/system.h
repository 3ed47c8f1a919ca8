// What tests have to know of the system that they run on.
#pragma once

#include <cstdint>

#include "platform/process/error.h"

namespace zelta::test {

#if defined(_WIN32)

// Wine stands for Windows in the tests, and differs from it in places.
bool underWine();

// A write to a pipe returns when its bytes have been read; otherwise when the pipe has taken them.
inline constexpr bool kPipesKeepBytes = false;
// A read of a pipe returns with the first bytes that are there; otherwise with as many as were
// asked for.
inline constexpr bool kReadsWaitForAllBytes = false;
// A pipe that was disconnected takes a client only once it is being connected again; otherwise at
// once.
inline constexpr bool kPipesListenAfterDisconnect = false;
// What creating a pipe fails with whose name is in use and has one instance.
inline constexpr std::uint32_t kPipeNameInUse = platform::error::kPipeBusy;
// Whether the agent has a control socket, and so the option for its path.
inline constexpr bool kAgentHasControl = false;

#else

inline constexpr bool underWine() { return false; }
inline constexpr bool kPipesKeepBytes = true;
inline constexpr bool kReadsWaitForAllBytes = true;
inline constexpr bool kPipesListenAfterDisconnect = true;
inline constexpr std::uint32_t kPipeNameInUse = platform::error::kAccessDenied;
inline constexpr bool kAgentHasControl = true;

#endif

}  // namespace zelta::test
