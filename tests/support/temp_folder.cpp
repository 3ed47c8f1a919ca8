#include "tests/support/temp_folder.h"

#include <cstdlib>
#include <random>
#include <sstream>
#include <stdexcept>

namespace zelta::test {

namespace {

void setVariable(const std::string& name, const char* value) {
#if defined(_WIN32)
  _putenv_s(name.c_str(), value == nullptr ? "" : value);
#else
  if (value == nullptr) {
    unsetenv(name.c_str());
  } else {
    setenv(name.c_str(), value, 1);
  }
#endif
}

}  // namespace

TempFolder::TempFolder() {
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    // Short: a socket's path takes 107 characters.
    std::ostringstream name;
    name << "zelta-test-" << std::hex << random();
    path_ = std::filesystem::temp_directory_path() / name.str();
    if (std::filesystem::create_directory(path_)) return;
  }
  throw std::runtime_error("no temporary folder");
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedVariable::ScopedVariable(const std::string& name, const std::string& value) : name_(name) {
  const char* before = std::getenv(name.c_str());
  wasSet_ = before != nullptr;
  if (wasSet_) before_ = before;
  setVariable(name, value.c_str());
}

ScopedVariable::~ScopedVariable() { setVariable(name_, wasSet_ ? before_.c_str() : nullptr); }

}  // namespace zelta::test
