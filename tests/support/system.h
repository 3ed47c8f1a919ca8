// Properties of the system that tests depend on.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/process/error.h"

namespace zelta::test {

#if defined(_WIN32)

// The tests for Windows run under Wine, which differs from it in places.
bool underWine();

// Whether a write to a pipe returns when the pipe has taken its bytes, not when they were read.
inline constexpr bool kPipesKeepBytes = false;
// Whether a read of a pipe waits for all bytes asked for, not only for the first that are there.
inline constexpr bool kReadsWaitForAllBytes = false;
// Whether a disconnected pipe takes a client at once, not only when it is being connected again.
inline constexpr bool kPipesListenAfterDisconnect = false;
// Whether a file that somebody has open can be removed.
inline constexpr bool kOpenFilesCanBeRemoved = false;
// The error of creating a pipe whose name is in use and has one instance.
inline constexpr std::uint32_t kPipeNameInUse = platform::error::kPipeBusy;
// The control path of an agent that belongs to a test's folder.
inline std::string controlPathFor(const std::filesystem::path& folder) {
  return "\\\\.\\pipe\\" + folder.filename().string();
}

#else

inline constexpr bool underWine() { return false; }
inline constexpr bool kPipesKeepBytes = true;
inline constexpr bool kReadsWaitForAllBytes = true;
inline constexpr bool kPipesListenAfterDisconnect = true;
inline constexpr bool kOpenFilesCanBeRemoved = true;
inline constexpr std::uint32_t kPipeNameInUse = platform::error::kAccessDenied;
inline std::string controlPathFor(const std::filesystem::path& folder) { return folder / "ctl"; }

#endif

}  // namespace zelta::test
