#include "agent/card/card_file.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "agent/program/wrong_configuration.h"

namespace zelta::agent {

namespace {

// Shortages are temporary: another attempt may succeed.
bool isShortage(const std::error_code& reason) {
  return reason == std::errc::not_enough_memory || reason == std::errc::too_many_files_open ||
         reason == std::errc::too_many_files_open_in_system;
}

}  // namespace

std::ifstream openCardFile(const std::string& path) {
  std::error_code ignored;
  const bool isFolder = std::filesystem::is_directory(path, ignored);
  errno = 0;
  std::ifstream file(path);
  if (!file.is_open() || isFolder) {
    const std::error_code reason(isFolder ? EISDIR : errno, std::generic_category());
    const std::string problem = "cannot read " + path + ": " + reason.message();
    if (isShortage(reason)) throw std::runtime_error(problem);
    throw WrongConfiguration(problem);
  }
  return file;
}

}  // namespace zelta::agent
