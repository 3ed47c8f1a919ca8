#include <algorithm>

#include "platform/files/native_path.h"

namespace zelta::platform {

std::filesystem::path nativePath(const std::string& path) {
  std::string native = path;
  std::replace(native.begin(), native.end(), '\\', '/');
  return native;
}

}  // namespace zelta::platform
