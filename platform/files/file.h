// Paths as the system opens them, and files that must not exist yet.
#pragma once

#include <filesystem>
#include <string>

namespace zelta::platform {

// Turns one of the driver's own paths, in UTF-8, into one that the system opens; nothing else does.
// Except on Windows, every backslash becomes a slash.
std::filesystem::path nativePath(const std::string& path);

enum class NewFile { kMade, kExists, kFailed };

// Not on Windows; there the folder decides.
enum class Readers { kOwner, kOwnerAndGroup };

// Makes an empty file and leaves nothing open. Nobody else may read it, not even for a moment. If
// several callers try at once, in whatever processes, one of them makes it and the others find that
// it exists.
[[nodiscard]] NewFile makeNewFile(const std::filesystem::path& path, Readers readers);

}  // namespace zelta::platform
