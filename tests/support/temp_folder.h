// A test's own folder, removed with everything in it at the end.
#pragma once

#include <filesystem>
#include <string>

namespace zelta::test {

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// Sets an environment variable for a scope.
class ScopedVariable {
 public:
  ScopedVariable(const std::string& name, const std::string& value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  std::string name_;
  std::string before_;
  bool wasSet_;
};

}  // namespace zelta::test
