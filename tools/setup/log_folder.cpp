#include <windows.h>
// windows.h comes first
#include <aclapi.h>
#include <sddl.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "platform/files/folders.h"
#include "platform/process/scoped_handle_win32.h"
#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace zelta::setup {

namespace {

namespace fs = std::filesystem;

fs::path programData() {
  char16_t* path = nullptr;
  const std::int32_t result = platform::systemFolders().programData(&path);
  if (result < 0) {
    throw WindowsError("cannot find the folder ProgramData", static_cast<DWORD>(result));
  }
  fs::path found(path);
  platform::systemFolders().taskMemFree(path);
  return found;
}

void setAccess(const fs::path& folder) {
  PSECURITY_DESCRIPTOR made = nullptr;
  require(ConvertStringSecurityDescriptorToSecurityDescriptorW(kLogFolderAccess, SDDL_REVISION_1,
                                                               &made, nullptr),
          "cannot read the access list");
  const platform::ScopedLocalMemory descriptor(made);
  require(SetFileSecurityW(folder.c_str(),
                           OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                               PROTECTED_DACL_SECURITY_INFORMATION,
                           descriptor.get()),
          "cannot set the access list of " + folder.u8string());
}

class LogFolder final : public Part {
 public:
  Look look() override {
    if (!exists(folder_)) return {Look::State::kAbsent, "none"};
    return {Look::State::kPresent, folder_.u8string()};
  }

  Change add() override {
    made_.clear();
    try {
      for (const fs::path& folder :
           {folder_.parent_path().parent_path(), folder_.parent_path(), folder_}) {
        if (CreateDirectoryW(folder.c_str(), nullptr)) {
          made_.push_back(folder);
        } else if (GetLastError() != ERROR_ALREADY_EXISTS) {
          throw WindowsError("cannot make " + folder.u8string(), GetLastError());
        }
      }
      setAccess(folder_);
    } catch (const WindowsError&) {
      undo();
      throw;
    }
    return {!made_.empty() && made_.back() == folder_, folder_.u8string()};
  }

  Change undo() override {
    // A folder stays if something else has been put into it.
    for (auto folder = made_.rbegin(); folder != made_.rend(); ++folder) {
      RemoveDirectoryW(folder->c_str());
    }
    made_.clear();
    return {true, {}};
  }

  Change remove() override {
    std::error_code error;
    const auto removed = fs::remove_all(folder_, error);
    if (error) {
      throw WindowsError("cannot remove " + folder_.u8string(), static_cast<DWORD>(error.value()));
    }
    // Removes the folders above it only if they are empty.
    RemoveDirectoryW(folder_.parent_path().c_str());
    RemoveDirectoryW(folder_.parent_path().parent_path().c_str());
    return {removed > 0, folder_.u8string()};
  }

 private:
  // A folder that this user may not access counts as present.
  static bool exists(const fs::path& folder) {
    return GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES ||
           GetLastError() == ERROR_ACCESS_DENIED;
  }

  const fs::path folder_ = programData() / "Vornhalt" / "ZeltaAgent" / "logs";
  std::vector<fs::path> made_;  // by the last `add`
};

}  // namespace

std::unique_ptr<Part> makeLogFolder() { return std::make_unique<LogFolder>(); }

}  // namespace zelta::setup
