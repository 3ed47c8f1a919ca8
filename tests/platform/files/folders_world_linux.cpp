#include "tests/platform/files/folders_conformance.h"

namespace zelta::test {

namespace {

class SystemFoldersWorld final : public FoldersWorld {
 public:
  platform::FolderApi& api() override { return platform::systemFolders(); }
  std::filesystem::path programData() const override { return folder_.path(); }

 private:
  const ScopedVariable programDataVariable_{"ZELTA_PROGRAM_DATA", programData().string()};
  const ScopedVariable temporaryVariable_{"TMPDIR", temporary().string()};
  const ScopedCurrentPath current_{current()};
};

}  // namespace

std::unique_ptr<FoldersWorld> makeSystemFoldersWorld() {
  return std::make_unique<SystemFoldersWorld>();
}

}  // namespace zelta::test
