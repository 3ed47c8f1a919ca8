// Making a file that must not be there yet.
#pragma once

#include <filesystem>

namespace zelta::platform {

enum class NewFile { kMade, kExists, kFailed };

// Makes an empty file; of several callers, in whatever processes, one makes it and the others find
// that it exists. Leaves nothing open.
NewFile makeNewFile(const std::filesystem::path& path);

}  // namespace zelta::platform
