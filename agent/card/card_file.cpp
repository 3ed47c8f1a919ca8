#include "agent/card/card_file.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace zelta::agent {

std::ifstream openCardFile(const std::string& path) {
  std::error_code ignored;
  const bool isFolder = std::filesystem::is_directory(path, ignored);
  errno = 0;
  std::ifstream file(path);
  if (!file.is_open() || isFolder) {
    throw std::runtime_error("cannot read " + path + ": " +
                             std::generic_category().message(isFolder ? EISDIR : errno));
  }
  return file;
}

}  // namespace zelta::agent
