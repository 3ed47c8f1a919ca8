// The one place where a path of the driver's own becomes one that the system opens.
#pragma once

#include <filesystem>
#include <string>

namespace zelta::platform {

// `path` is UTF-8. Away from Windows every backslash becomes a slash.
std::filesystem::path nativePath(const std::string& path);

}  // namespace zelta::platform
