#include "platform/process/environment.h"

#include <cstdlib>

namespace zelta::platform {

std::string environmentOr(const char* name, const std::string& otherwise) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see the header
  return value == nullptr || *value == '\0' ? otherwise : value;
}

}  // namespace zelta::platform
