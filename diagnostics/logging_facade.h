// Settings of the process's logger: the folder of its files and the filter of its records.
// log_output.h has the logger itself.
#pragma once

#include <cstdint>
#include <string>

#include "platform/files/folders.h"
#include "platform/registry/registry.h"

namespace zelta {

// The part of a log file's path after the log directory.
inline constexpr char kLogBaseName[] = "zelta_vsc";

// The threshold if the registry has none: information and above.
inline constexpr std::uint32_t kDefaultEventFilterMode = 2;

// The directory of the log files with a backslash at its end: the agent's, below the ProgramData
// folder. If there is no such folder: the temporary path, or else the current directory, always
// with another backslash. Empty if that fails, too, or has 260 characters or more. The directory
// may not exist; it is never created.
std::u16string resolveLogDirectory(platform::FolderApi& folders);

// The administrator's level threshold, 0 to 3: the policy key's, else the defaults key's, else
// `kDefaultEventFilterMode`. A number above 3 in the policy key counts as none; in the defaults
// key it gives `kDefaultEventFilterMode`.
std::uint32_t readEventFilterMode(platform::RegistryApi& registry);

}  // namespace zelta
