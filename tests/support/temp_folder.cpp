#include "tests/support/temp_folder.h"

#include <cstdlib>
#include <random>
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
    path_ = std::filesystem::temp_directory_path() /
            ("zelta-test-" + std::to_string(random()) + std::to_string(random()));
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
