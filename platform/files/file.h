// Paths as the system opens them, and files that must not exist yet.
#pragma once

#include <filesystem>
#include <string>

namespace zelta::platform {

// The one place that turns a path of the driver's own, in UTF-8, into one that the system opens.
// Away from Windows every backslash becomes a slash.
std::filesystem::path nativePath(const std::string& path);

enum class NewFile { kMade, kExists, kFailed };

// Makes an empty file and leaves nothing open. Away from Windows others may not read it. If several
// callers try at once, in whatever processes, one of them makes it and the others find that it
// exists.
[[nodiscard]] NewFile makeNewFile(const std::filesystem::path& path);

}  // namespace zelta::platform
