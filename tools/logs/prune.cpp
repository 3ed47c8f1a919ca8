// Not logrotate, which does not ask whether a process has a file open.
#include "tools/logs/prune.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <string_view>
#include <system_error>

#include "contract/harmless.h"
#include "tools/logs/log_folder.h"

namespace zelta::logs {

namespace {

std::vector<LogFile> lookAt(const std::vector<std::filesystem::path>& paths) {
  std::vector<LogFile> files;
  for (const auto& path : paths) {
    struct stat found;
    if (lstat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) continue;
    files.push_back({path, static_cast<std::uint64_t>(found.st_size), found.st_mtime});
  }
  return files;
}

// A member of the group that may write there can give a file any name.
std::string shown(const std::filesystem::path& path) { return harmless(path.string()); }

bool fail(std::string_view what, const std::filesystem::path& path, const std::string& why) {
  std::cerr << "zelta-logs: " << what << " " << shown(path) << ": " << why << "\n";
  return false;
}

bool removeFile(const LogFile& file, bool dryRun, bool verbose) {
  const auto isWritten = isBeingWritten(file.path);
  if (!isWritten) {
    std::error_code ignored;
    if (!std::filesystem::exists(file.path, ignored)) return true;  // another run was faster
    return fail("cannot remove", file.path, "it may be in use (only its owner and root can tell)");
  }
  if (*isWritten) {
    if (dryRun || verbose) std::cout << "kept " << shown(file.path) << ", it is in use\n";
    return true;
  }
  std::error_code error;
  if (!dryRun) std::filesystem::remove(file.path, error);
  if (error) return fail("cannot remove", file.path, error.message());
  if (dryRun || verbose) {
    std::cout << (dryRun ? "would remove " : "removed ") << shown(file.path) << "\n";
  }
  return true;
}

}  // namespace

std::vector<LogFile> superfluous(const std::vector<LogFile>& files, const PruneLimits& limits,
                                 std::int64_t now) {
  std::vector<LogFile> result;
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;
  std::for_each(files.rbegin(), files.rend(), [&](const LogFile& file) {
    ++count;
    bytes += file.size;
    const bool exceeds = (limits.files && count > *limits.files) ||
                         (limits.bytes && bytes > *limits.bytes) ||
                         (limits.age && now - file.modified > *limits.age);
    if (count > 1 && exceeds) result.push_back(file);
  });
  std::reverse(result.begin(), result.end());
  return result;
}

bool prune(const std::filesystem::path& folder, const PruneLimits& limits, bool dryRun,
           bool verbose) {
  std::error_code error;
  const std::filesystem::directory_iterator reading(folder, error);
  if (error) return fail("cannot read", folder, error.message());
  bool succeeded = true;
  for (const LogFile& file : superfluous(lookAt(logFiles(folder)), limits, std::time(nullptr))) {
    succeeded = removeFile(file, dryRun, verbose) && succeeded;
  }
  return succeeded;
}

}  // namespace zelta::logs
