#include <windows.h>
// windows.h comes first
#include "tests/platform/files/folders_test.h"

namespace zelta::test {

namespace {

constexpr DWORD kCapacity = 261;

// Sets the variable that the temporary path is taken from; the C library sets only its own copy.
class ScopedTemporaryPath {
 public:
  explicit ScopedTemporaryPath(const std::filesystem::path& path) {
    GetEnvironmentVariableW(L"TMP", before_, kCapacity);
    SetEnvironmentVariableW(L"TMP", path.c_str());
  }
  ~ScopedTemporaryPath() { SetEnvironmentVariableW(L"TMP", before_); }
  ScopedTemporaryPath(const ScopedTemporaryPath&) = delete;
  ScopedTemporaryPath& operator=(const ScopedTemporaryPath&) = delete;

 private:
  wchar_t before_[kCapacity] = L"";
};

// The known folder is the system's; the system also sets a variable to it.
class SystemFoldersWorld final : public FoldersWorld {
 public:
  platform::FolderApi& api() override { return platform::systemFolders(); }
  std::filesystem::path programData() const override {
    wchar_t path[kCapacity] = L"";
    GetEnvironmentVariableW(L"ProgramData", path, kCapacity);
    return path;
  }

 private:
  const ScopedTemporaryPath temporary_{temporary()};
  const ScopedCurrentPath current_{current()};
};

}  // namespace

std::unique_ptr<FoldersWorld> makeSystemFoldersWorld() {
  return std::make_unique<SystemFoldersWorld>();
}

}  // namespace zelta::test
