// Removes old log files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace zelta::logs {

struct PruneLimits {
  std::optional<std::uint64_t> files;  // how many stay
  std::optional<std::int64_t> age;     // seconds since the last line
  std::optional<std::uint64_t> bytes;  // of all that stay
};

struct LogFile {
  std::filesystem::path path;
  std::uint64_t size = 0;     // bytes
  std::int64_t modified = 0;  // seconds since 1970
};

// Those of the files, given oldest first, that exceed a limit. The oldest go first; the newest
// stays, whatever its size and age.
std::vector<LogFile> superfluous(const std::vector<LogFile>& files, const PruneLimits& limits,
                                 std::int64_t now);

// Removes the folder's superfluous files, except those that a process has open for writing or may
// have. `dryRun` only lists the files to remove; `verbose` lists what is removed and what stays.
// False if something failed; standard error says what.
bool prune(const std::filesystem::path& folder, const PruneLimits& limits, bool dryRun,
           bool verbose);

}  // namespace zelta::logs
