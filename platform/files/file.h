// Paths as the system opens them, and files that must not exist yet.
#pragma once

#include <filesystem>
#include <string>

namespace zelta::platform {

// The one place that turns a path of the driver's own, in UTF-8, into one that the system opens.
// Away from Windows every backslash becomes a slash.
std::filesystem::path nativePath(const std::string& path);

enum class NewFile { kMade, kExists, kFailed };

// Away from Windows; there the folder decides.
enum class Readers { kOwner, kOwnerAndGroup };

// Makes an empty file and leaves nothing open. Nobody else may read it, not even for a moment. If
// several callers try at once, in whatever processes, one of them makes it and the others find that
// it exists.
[[nodiscard]] NewFile makeNewFile(const std::filesystem::path& path, Readers readers);

}  // namespace zelta::platform
