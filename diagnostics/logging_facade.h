// What the process's logger is made of: where its files go and which records it writes. The
// logger itself is behind log_output.h.
#pragma once

#include <cstdint>
#include <string>

#include "platform/files/folders.h"
#include "platform/registry/registry.h"

namespace zelta {

// Follows the log directory in a log file's path.
inline constexpr char kLogBaseName[] = "zelta_vsc";

// The threshold where the registry says nothing else: information and above.
inline constexpr std::uint32_t kDefaultEventFilterMode = 2;

// The directory of the log files with a backslash at its end: the agent's below the ProgramData
// folder; where there is none the temporary path or the current directory, with another backslash
// after whatever it ends in; empty where that fails, too, or is 260 characters or longer. The
// directory may not exist; it is never created.
std::u16string resolveLogDirectory(platform::FolderApi& folders);

// The administrator's level threshold, 0 to 3: the policy key's, else the defaults key's, else
// `kDefaultEventFilterMode`. A number above 3 in the policy key counts as none; in the defaults
// key it gives `kDefaultEventFilterMode`.
std::uint32_t readEventFilterMode(platform::RegistryApi& registry);

}  // namespace zelta
