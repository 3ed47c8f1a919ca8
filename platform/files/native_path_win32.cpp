#include "platform/files/native_path.h"

namespace zelta::platform {

std::filesystem::path nativePath(const std::string& path) { return std::filesystem::u8path(path); }

}  // namespace zelta::platform
