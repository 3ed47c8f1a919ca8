#include <windows.h>
// windows.h comes first; initguid.h makes the folder's identifier a definition of this file
#include <initguid.h>
#include <knownfolders.h>
#include <shlobj.h>

#include "platform/files/folders.h"
#include "platform/process/never_destroyed.h"

namespace zelta::platform {

namespace {

class Win32Folders final : public FolderApi {
 public:
  std::int32_t programData(char16_t** path) override {
    wchar_t* folder = nullptr;
    const HRESULT result = SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &folder);
    if (FAILED(result)) {
      CoTaskMemFree(folder);  // the caller's in either case
      folder = nullptr;
    }
    *path = reinterpret_cast<char16_t*>(folder);
    return result;
  }

  void taskMemFree(void* memory) override { CoTaskMemFree(memory); }

  std::uint32_t tempPath(char16_t* buffer, std::uint32_t capacity) override {
    return GetTempPathW(capacity, reinterpret_cast<wchar_t*>(buffer));
  }

  std::uint32_t currentDirectory(char16_t* buffer, std::uint32_t capacity) override {
    return GetCurrentDirectoryW(capacity, reinterpret_cast<wchar_t*>(buffer));
  }
};

}  // namespace

FolderApi& systemFolders() {
  static NeverDestroyed<Win32Folders> folders;
  return folders.get();
}

}  // namespace zelta::platform
