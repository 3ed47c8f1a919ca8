// The folders for the suite of the folders, installed while this object lives.
#pragma once

#include <filesystem>
#include <memory>

#include "platform/files/folders.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

class FoldersWorld {
 public:
  virtual ~FoldersWorld() = default;
  virtual platform::FolderApi& api() = 0;
  // The paths that the calls must return, without a separator at the end.
  virtual std::filesystem::path programData() const { return folder_.path(); }
  std::filesystem::path temporary() const { return folder_.path() / "temporary"; }
  std::filesystem::path current() const { return folder_.path() / "current"; }

 protected:
  FoldersWorld() {
    std::filesystem::create_directory(temporary());
    std::filesystem::create_directory(current());
  }

  const TempFolder folder_;
};

// Makes a folder the current one for its scope.
class ScopedCurrentPath {
 public:
  explicit ScopedCurrentPath(const std::filesystem::path& path) {
    std::filesystem::current_path(path);
  }
  ~ScopedCurrentPath() { std::filesystem::current_path(before_); }
  ScopedCurrentPath(const ScopedCurrentPath&) = delete;
  ScopedCurrentPath& operator=(const ScopedCurrentPath&) = delete;

 private:
  const std::filesystem::path before_ = std::filesystem::current_path();
};

std::unique_ptr<FoldersWorld> makeSystemFoldersWorld();

}  // namespace zelta::test
