// Variables of the environment. Any thread: nothing of the product changes them.
#pragma once

#include <string>

namespace zelta::platform {

// What the variable says, or `otherwise` if it is not set or empty.
std::string environmentOr(const char* name, const std::string& otherwise);

}  // namespace zelta::platform
