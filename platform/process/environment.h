// Reads environment variables. Any thread: no part of the product changes them.
#pragma once

#include <string>

namespace zelta::platform {

// The variable's value, or `otherwise` if it is unset or empty.
std::string environmentOr(const char* name, const std::string& otherwise);

}  // namespace zelta::platform
