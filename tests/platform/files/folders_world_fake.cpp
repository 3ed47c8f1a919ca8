#include "tests/platform/files/folders_conformance.h"
#include "tests/support/fake_folders.h"

namespace zelta::test {

namespace {

class FakeFoldersWorld final : public FoldersWorld {
 public:
  FakeFoldersWorld() {
    fake_.programDataPath = programData().u16string();
    fake_.temporaryPath = (temporary() / "").u16string();
    fake_.currentPath = current().u16string();
  }
  platform::FolderApi& api() override { return fake_; }
  std::filesystem::path programData() const override { return folder_.path(); }

 private:
  FakeFolders fake_;
};

}  // namespace

std::unique_ptr<FoldersWorld> makeFakeFoldersWorld() {
  return std::make_unique<FakeFoldersWorld>();
}

}  // namespace zelta::test
